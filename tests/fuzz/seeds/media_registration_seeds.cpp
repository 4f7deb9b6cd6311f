// Hostile configurations, registered once and twice, and frames of every length, source and time behind good
// ones.
#include "seed_folder.h"

namespace {

constexpr uint8_t kDescription = 1;
constexpr uint8_t kTodaysPlayer = 2;
constexpr uint8_t kStartsAnew = 4;

constexpr uint8_t kVideo = 1;
constexpr uint8_t kAudio = 2;
constexpr uint8_t kWithoutLength = 4;
constexpr uint8_t kWithoutData = 8;
constexpr uint8_t kOddCodecs = 16;
constexpr uint8_t kRaw = 32;
constexpr uint8_t kReal = 64;

constexpr uint8_t kSoundFrame = 1;
constexpr uint8_t kManyTimes = 0x0E;
constexpr uint8_t kTimeGiven = 0x10;

enum SeedSource : uint8_t { IN_MEMORY, IN_FILE, IN_SHORT_FILE, IN_PIPE, IN_CLOSED, BELOW_MAP, SEED_SOURCES };
enum SeedChunks : uint8_t {
    CHUNKS_OF_128,
    CHUNKS_OF_1,
    CHUNKS_OF_2,
    CHUNKS_OF_5,
    CHUNKS_OF_127,
    CHUNKS_OF_129
};

const Bytes kKeyNal = Hex("00000006 65 8884002F");
const Bytes kInterNal = Hex("00000006 41 9A0123");

Bytes Front(uint8_t choices, uint8_t chunkSize, uint8_t more = 0)
{
    return {choices, chunkSize, more};
}

// Bit rate 2,500,000; an AudioSpecificConfig of 44.1 kHz stereo.
Bytes Registration(uint8_t choices, const Bytes &video = {})
{
    return Bytes{choices} + Hex("002625A0 02 1210") + video;
}

const Bytes kGood = Registration(kVideo | kAudio | kReal);

Bytes RawVideo(const Bytes &bytes)
{
    return Registration(kVideo | kRaw, Bytes{static_cast<uint8_t>(bytes.size())} + bytes);
}

// `length` bytes that begin with `head`, 40 ms behind the frame before.
Bytes SeedFrame(size_t length, const Bytes &head, uint8_t choices = 0)
{
    return Bytes{choices, 40} + BigEndian(length - 1, 2) + BigEndian(head.size(), 1) + head;
}

Bytes FrameAt(uint64_t time, uint8_t choices = 0)
{
    return Bytes{static_cast<uint8_t>(kTimeGiven | choices)} + BigEndian(time, 8) + BigEndian(19, 2) +
           BigEndian(9, 1) + kKeyNal;
}

void WriteHostileOnes(SeedFolder &folder)
{
    const Bytes sps = Hex("00000001 67 42C01F DA014016E4");
    for (const uint8_t choices : {uint8_t{0}, kDescription}) {
        const std::string rules = choices == 0 ? "exact_" : "described_";
        for (size_t length = 1; length <= 5; length++) {
            folder.write(rules + "configuration_of_" + std::to_string(length),
                         Front(choices, CHUNKS_OF_128) + RawVideo(Slice(sps, 0, length)));
        }
        folder.write(rules + "start_code_in_the_last_four",
                     Front(choices, CHUNKS_OF_128) + RawVideo(sps + Hex("00000001")));
        folder.write(rules + "pps_header_at_the_end",
                     Front(choices, CHUNKS_OF_128) + RawVideo(sps + Hex("00000001 68")));
        folder.write(rules + "short_start_codes",
                     Front(choices, CHUNKS_OF_128) + RawVideo(Slice(sps, 1, 12) + Hex("000001 68CE3C80")));
        for (const uint8_t odd : {kWithoutLength, kWithoutData, uint8_t{kWithoutLength | kWithoutData}}) {
            folder.write(rules + "nothing_given_" + std::to_string(odd),
                         Front(choices, CHUNKS_OF_128) + Registration(kVideo | kAudio | odd | kReal));
        }
        folder.write(rules + "neither", Front(choices, CHUNKS_OF_128) + Registration(0));
        folder.write(rules + "sound_alone",
                     Front(choices, CHUNKS_OF_128) + Registration(kAudio | kReal) + FrameAt(1000));
        folder.write(rules + "sound_of_one_byte", Front(choices, CHUNKS_OF_128) + Hex("42 00000000 01 12"));
        folder.write(rules + "odd_frequency", Front(choices, CHUNKS_OF_128) + Hex("42 00000000 02 17FF"));
        folder.write(rules + "other_video_codec", Front(choices, CHUNKS_OF_128) +
                                                      Bytes{kVideo | kReal | kOddCodecs} +
                                                      Hex("02 00000000 0A 00"));
        folder.write(rules + "other_audio_codec", Front(choices, CHUNKS_OF_128) +
                                                      Bytes{kAudio | kReal | kOddCodecs} +
                                                      Hex("07 00000000 02 02 1210"));
        folder.write(rules + "bad_behind_good", Front(choices, CHUNKS_OF_128, 1) + kGood + RawVideo(sps) +
                                                    FrameAt(1000) + FrameAt(1040));
        folder.write(rules + "good_twice", Front(choices, CHUNKS_OF_128, 1) + kGood + kGood + FrameAt(1000));
        const Bytes fields =
            Hex("44 C01F 00 01 00 00 00 00 00 00 02 01 00 4F 2C 01 01 01 00 00 00 04 00 0000 00");
        folder.write(rules + "written_by_fields",
                     Front(choices, CHUNKS_OF_128) + Registration(kVideo, fields));
    }
}

void WriteLengthsOfFrames(SeedFolder &folder)
{
    for (const uint8_t choices : {uint8_t{0}, uint8_t{kDescription | kTodaysPlayer}}) {
        const std::string rules = choices == 0 ? "exact_" : "today_";
        Bytes few = Front(choices, CHUNKS_OF_128) + kGood;
        for (size_t length = 1; length <= 6; length++) {
            few = few + SeedFrame(length, Slice(kKeyNal, 0, length));
        }
        folder.write(rules + "frames_of_1_to_6", few);
        for (const size_t about :
             {128, 256, 1280}) { // with the tag header in front: C-5, C-4, k*C and one beside it
            Bytes beside = Front(choices, CHUNKS_OF_128) + kGood;
            for (size_t length = about - 6; length <= about - 3; length++) {
                beside = beside + SeedFrame(length, kKeyNal) + SeedFrame(length, Hex("2110"), kSoundFrame);
            }
            for (size_t length = about - 1; length <= about + 1; length++) {
                beside = beside + SeedFrame(length, kInterNal);
            }
            folder.write(rules + "frames_about_" + std::to_string(about), beside);
        }
        for (const size_t chunks : {510, 511, 512, 513}) {
            folder.write(rules + "frame_of_" + std::to_string(chunks) + "_chunks",
                         Front(choices, CHUNKS_OF_1) + kGood + SeedFrame(chunks - 5, kKeyNal));
        }
        for (const SeedChunks size : {CHUNKS_OF_2, CHUNKS_OF_5, CHUNKS_OF_127, CHUNKS_OF_129}) {
            folder.write(rules + "chunk_size_" + std::to_string(size),
                         Front(choices, size) + kGood + SeedFrame(500, kKeyNal) + SeedFrame(501, kInterNal));
        }
    }
}

void WriteSourcesAndTimes(SeedFolder &folder)
{
    for (uint8_t source = IN_MEMORY; source < SEED_SOURCES; source++) {
        const uint8_t bits = static_cast<uint8_t>(source << 5);
        folder.write("source_" + std::to_string(source), Front(0, CHUNKS_OF_128) + kGood +
                                                             SeedFrame(700, kKeyNal, bits) +
                                                             SeedFrame(300, Hex("21"), bits | kSoundFrame) +
                                                             SeedFrame(700, kInterNal, bits) + FrameAt(5000));
    }
    const std::pair<const char *, uint64_t> jumps[] = {{"nothing", 0},
                                                       {"2_to_24", uint64_t{1} << 24},
                                                       {"2_to_32", uint64_t{1} << 32},
                                                       {"2_to_63", uint64_t{1} << 63},
                                                       {"backward", uint64_t{0} - 500}};
    for (const uint8_t choices : {uint8_t{0}, uint8_t{kDescription | kTodaysPlayer | kStartsAnew}}) {
        for (const auto &[name, jump] : jumps) {
            folder.write(std::string(choices == 0 ? "exact" : "today") + "_time_jumps_" + name,
                         Front(choices, CHUNKS_OF_128) + kGood + FrameAt(1000) + FrameAt(1020, kSoundFrame) +
                             FrameAt(1000 + jump) + FrameAt(1020 + jump, kSoundFrame) + FrameAt(1040 + jump) +
                             SeedFrame(300, kInterNal));
        }
        folder.write(std::string(choices == 0 ? "exact" : "today") + "_much_sound",
                     Front(choices, CHUNKS_OF_128) + kGood + FrameAt(1000) +
                         SeedFrame(9, {}, kSoundFrame | kManyTimes) + FrameAt(1040) + FrameAt(9040));
    }
    folder.write("waits_for_a_key_frame", Front(kTodaysPlayer | kStartsAnew, CHUNKS_OF_128) + kGood +
                                              SeedFrame(30, kInterNal) + SeedFrame(9, {}, kSoundFrame) +
                                              SeedFrame(30, kInterNal + kKeyNal) + SeedFrame(30, kInterNal));
}

} // namespace

void Seeds_media_registration(SeedFolder &folder)
{
    WriteHostileOnes(folder);
    WriteLengthsOfFrames(folder);
    WriteSourcesAndTimes(folder);
}
