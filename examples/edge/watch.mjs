// Watches the page as a person would: waits for pictures, takes two screenshots a second apart, and says whether
// the picture and the time have moved between them.
//
//   node watch.mjs URL CHROMIUM DIRECTORY
import { writeFileSync } from 'node:fs';
import { chromium } from 'playwright-core';

const [url, executablePath, directory] = process.argv.slice(2);
const kPatience = 60_000; // ms until it plays

const browser = await chromium.launch({
    executablePath,
    args: ['--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run', '--disable-background-networking',
        '--disable-component-update', '--disable-sync', '--autoplay-policy=no-user-gesture-required'],
});

// What the element shows, small enough to compare: 64 by 36 grey values.
function look() {
    const video = document.getElementById('video');
    const canvas = Object.assign(document.createElement('canvas'), { width: 64, height: 36 });
    const context = canvas.getContext('2d');
    context.drawImage(video, 0, 0, 64, 36);
    const { data } = context.getImageData(0, 0, 64, 36);
    return {
        time: video.currentTime,
        width: video.videoWidth,
        height: video.videoHeight,
        pictures: video.getVideoPlaybackQuality().totalVideoFrames,
        sound: video.webkitAudioDecodedByteCount,
        grey: Array.from({ length: 64 * 36 }, (_, i) => Math.round((data[4 * i] + data[4 * i + 1] + data[4 * i + 2]) / 3)),
    };
}

function fail(why) {
    console.error(`watch: ${why}`);
    process.exitCode = 1;
}

try {
    const page = await browser.newPage({ viewport: { width: 1280, height: 800 } });
    page.on('console', (message) => console.log(`page: ${message.text()}`));
    await page.goto(url);
    await page.waitForFunction(() => document.getElementById('video').currentTime > 2, undefined, { timeout: kPatience });

    const first = await page.evaluate(look);
    writeFileSync(`${directory}/edge-1.png`, await page.screenshot());
    await page.waitForTimeout(1000);
    const second = await page.evaluate(look);
    writeFileSync(`${directory}/edge-2.png`, await page.screenshot());

    const changed = first.grey.filter((value, i) => Math.abs(value - second.grey[i]) > 16).length;
    const pictures = second.pictures - first.pictures;
    console.log(`${second.width}x${second.height}, ${(second.time - first.time).toFixed(2)} s and ${pictures} pictures ` +
        `between the shots, ${changed} of ${first.grey.length} points changed, ${second.sound} bytes of sound decoded`);
    if (second.width === 0 || changed === 0) {
        fail('the picture stands still');
    }
    if (second.time - first.time < 0.5 || pictures < 10) {
        fail('time stands still');
    }
    if (second.sound === 0) {
        fail('there is no sound');
    }
} catch (error) {
    fail(error.message);
} finally {
    await browser.close();
}
