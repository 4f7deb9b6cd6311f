#!/usr/bin/env python3
"""Records what real players send to live_host, and what real services answer publish_host, as seeds of the fuzzer.

    tests/fuzz/seeds/record_players.py BUILD        BUILD/examples holds both; writes tests/fuzz/corpus/*/recorded_*

A relay between the two keeps one direction of the first connection that gets beyond its handshake. Programs that are
not installed are named and passed over.
"""
import os
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__)))))
CORPUS = os.path.join(ROOT, "tests/fuzz/corpus")
CLIP = os.path.join(ROOT, "examples/media/clip.mp4")
SHAKE = 1 + 2 * 1536
SECONDS = 8
LONGEST = 4000  # of a seed
QUIET = {"stdin": subprocess.DEVNULL, "stdout": subprocess.DEVNULL, "stderr": subprocess.DEVNULL}
SIGNED = ["-w", "0123456789abcdef0123456789abcdef0123456789abcdef0123456789abcdef", "-x", "1000"]


def free_port():
    with socket.socket() as one:
        one.bind(("127.0.0.1", 0))
        return one.getsockname()[1]


class Relay:
    """Passes connections on to `port` of loopback, and keeps what each side said in each of them."""

    def __init__(self, port):
        self.to = port
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.port = self.listener.getsockname()[1]
        self.said = []  # of each connection: what came from who connected, and the answers
        threading.Thread(target=self.accept, daemon=True).start()

    def accept(self):
        while True:
            try:
                one, _ = self.listener.accept()
                other = socket.create_connection(("127.0.0.1", self.to))
            except OSError:
                return
            both = (bytearray(), bytearray())
            self.said.append(both)
            for source, sink, kept in ((one, other, both[0]), (other, one, both[1])):
                threading.Thread(target=self.pass_on, args=(source, sink, kept), daemon=True).start()

    @staticmethod
    def pass_on(source, sink, kept):
        try:
            while data := source.recv(65536):
                kept.extend(data[: 65536 - len(kept)])
                sink.sendall(data)
            sink.shutdown(socket.SHUT_WR)
        except OSError:
            pass

    def longest(self, side):
        return bytes(max((both[side] for both in self.said), key=len, default=b""))


def write(target, name, data):
    folder = os.path.join(CORPUS, target)
    os.makedirs(folder, exist_ok=True)
    with open(os.path.join(folder, "recorded_" + name), "wb") as file:
        file.write(data)
    print(f"{target}/recorded_{name}: {len(data)} bytes")


def end(process):
    process.send_signal(signal.SIGINT)
    try:
        process.wait(5)
    except subprocess.TimeoutExpired:
        process.kill()
        process.wait()


def run(words, seconds):
    """Whether the program is there. It has so long, and is then asked to leave."""
    if shutil.which(words[0]) is None:
        print("not installed: " + words[0])
        return False
    process = subprocess.Popen(words, **QUIET)
    try:
        process.wait(seconds)
    except subprocess.TimeoutExpired:
        end(process)
    return True


def listens(port):
    for _ in range(200):
        try:
            socket.create_connection(("127.0.0.1", port)).close()
            return
        except OSError:
            time.sleep(0.05)
    raise SystemExit("nothing listens on port %d" % port)


def gstreamer(source):
    return lambda url, work: ["gst-launch-1.0", source, "location=" + url, "num-buffers=60", "!", "fakesink"]


def nginx_pull(url, work):
    with open(work + "/pull.conf", "w") as file:
        file.write("load_module /usr/lib/nginx/modules/ngx_rtmp_module.so;\ndaemon off;\nmaster_process off;\n"
                   f"pid {work}/pid;\nerror_log stderr;\nevents {{ worker_connections 64; }}\n"
                   f"rtmp {{ access_log off; server {{ listen 127.0.0.1:{free_port()};\n"
                   f"application edge {{ live on; pull {url} name=stream static; }} }} }}\n")
    return ["nginx", "-e", "stderr", "-p", work, "-c", work + "/pull.conf"]


def vlc(url, work):
    os.chmod(work, 0o777)
    return ["env", "HOME=" + work, "setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", "vlc", "-I", "dummy",
            "--vout", "vdummy", "--aout", "adummy", url]


PLAYERS = {
    "ffmpeg": lambda url, work: ["ffmpeg", "-nostdin", "-i", url, "-c", "copy", "-t", "2", "-f", "null", "-"],
    "ffmpeg_recorded": lambda url, work: ["ffmpeg", "-nostdin", "-rtmp_live", "recorded", "-i", url + "?token=x", "-c",
                                          "copy", "-t", "2", "-f", "null", "-"],
    "ffmpeg_publishing": lambda url, work: ["ffmpeg", "-nostdin", "-re", "-i", CLIP, "-c", "copy", "-f", "flv", url],
    "ffplay": lambda url, work: ["env", "SDL_VIDEODRIVER=dummy", "SDL_AUDIODRIVER=dummy", "ffplay", "-autoexit", "-t", "3",
                                 url],
    "rtmpdump": lambda url, work: ["rtmpdump", "-r", url, "-o", "/dev/null", "-B", "2"],
    "rtmpdump_signed": lambda url, work: ["rtmpdump", *SIGNED, "-v", "-r", url, "-o", "/dev/null", "-B", "2"],
    "gstreamer_rtmpsrc": gstreamer("rtmpsrc"),
    "gstreamer_rtmp2src": gstreamer("rtmp2src"),
    "mpv": lambda url, work: ["mpv", "--no-config", "--vo=null", "--ao=null", "--length=2", url],
    "vlc": vlc,
    "nginx_pull": nginx_pull,
}
SHAKES = ("ffmpeg", "rtmpdump", "rtmpdump_signed", "gstreamer_rtmp2src")  # the others' look like one of these


def record_players(build, work):
    port = free_port()
    host = subprocess.Popen([build + "/examples/live_host", "--interface", "lo", "--rtmp-port", str(port)], **QUIET)
    try:
        listens(port)
        for name, words in PLAYERS.items():
            relay = Relay(port)
            if not run(words(f"rtmp://127.0.0.1:{relay.port}/live/stream", work), SECONDS):
                continue
            said = relay.longest(0)
            if len(said) <= SHAKE:
                print(name + " did not get beyond its handshake")
                continue
            # Every rule, a session with a sender, frames; on each road.
            for road, bits in (("exact", 0xC7), ("steady", 0xCF)):
                write("serve_loop", name + "_" + road, bytes((0xFF, bits, 0x4E)) + said[SHAKE:][:LONGEST])
            if name in SHAKES:
                write("handshake", name, bytes((0x18,)) + said[:SHAKE])
    finally:
        end(host)


def nginx_service(port, work):
    with open(work + "/service.conf", "w") as file:
        file.write("load_module /usr/lib/nginx/modules/ngx_rtmp_module.so;\ndaemon off;\nmaster_process off;\n"
                   f"pid {work}/pid;\nerror_log stderr;\nevents {{ worker_connections 64; }}\n"
                   f"rtmp {{ access_log off; server {{ listen 127.0.0.1:{port};\n"
                   "ping 1s; application live { live on; } } }\n")
    return ["nginx", "-e", "stderr", "-p", work, "-c", work + "/service.conf"]


SERVICES = {
    "nginx": nginx_service,
    "ffmpeg": lambda port, work: ["ffmpeg", "-nostdin", "-listen", "1", "-i", f"rtmp://127.0.0.1:{port}/live/key", "-c",
                                  "copy", "-f", "null", "-"],
}


def record_services(build, work):
    for name, words in SERVICES.items():
        if shutil.which(name) is None:
            print("not installed: " + name)
            continue
        port = free_port()
        service = subprocess.Popen(words(port, work), **QUIET)
        time.sleep(1)  # one that serves a single connection must not be asked whether it listens
        relay = Relay(port)
        run([build + "/examples/publish_host", "--to", f"rtmp://127.0.0.1:{relay.port}/live/key", "--duration", "3"],
            SECONDS)
        end(service)
        said = relay.longest(1)
        # The whole, and what comes behind the handshake, which the target has said itself.
        write("service_answers", name, bytes((0x07, 0x0E)) + said[:LONGEST])
        write("service_answers", name + "_exact", bytes((0x0E, 0x0E)) + said[SHAKE:][:LONGEST])


def main():
    if len(sys.argv) != 2:
        raise SystemExit(__doc__)
    build = os.path.abspath(sys.argv[1])
    with tempfile.TemporaryDirectory() as work:
        record_players(build, work)
        record_services(build, work)


main()
