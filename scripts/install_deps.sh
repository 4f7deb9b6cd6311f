#!/bin/sh
# Installs what building, demonstrating and testing need, and only what is missing. Debian 12, as root.
#
#   scripts/install_deps.sh [demo|adaptive|edge|publish|test|fuzz|coverage]      default: everything
set -eu

build="g++ cmake ninja-build pkg-config libssl-dev libavformat-dev libavcodec-dev libavutil-dev
libswscale-dev libswresample-dev"
demo="ffmpeg rtmpdump"
adaptive="ffmpeg rtmpdump iproute2 gnuplot-nox python3"
edge="ffmpeg nginx-light libnginx-mod-rtmp chromium nodejs"
# Node.js from elsewhere brings its own npm, beside which Debian's cannot be installed.
command -v npm >/dev/null || edge="$edge npm"
# The TLS front is a module of nginx, too; its throw-away certificate is made with openssl.
publish="ffmpeg nginx-light libnginx-mod-rtmp libnginx-mod-stream openssl"
tests="libgtest-dev ffmpeg rtmpdump gnuplot-nox python3 openssl
clang clang-tidy clang-format cppcheck"
# The fuzzer and the runtimes of the sanitizers are a package beside the compiler, which only recommends it; llvm names the
# procedures in what they find.
fuzz="clang libclang-rt-14-dev llvm libgtest-dev"
# Every player that is tried in front of the reference host, headless.
players="mpv vlc-bin vlc-plugin-base vlc-plugin-access-extra gstreamer1.0-tools gstreamer1.0-plugins-good
gstreamer1.0-plugins-bad nginx-light libnginx-mod-rtmp libnginx-mod-stream"
tests="$tests $players"
# The tests run on 64-bit ARM too. Elsewhere that takes a cross compiler, an emulator, and the libraries in both
# architectures, side by side.
cross="g++-aarch64-linux-gnu qemu-user libstdc++6:arm64 libssl-dev:arm64 libgtest-dev:arm64"

if [ "$(dpkg --print-architecture 2>/dev/null)" != arm64 ]; then
    tests="$tests $cross"
fi

# Reads which lines and branches the tests ran.
coverage="$tests gcovr"

case ${1:-all} in
demo) packages="$build $demo" ;;
adaptive) packages="$build $adaptive" ;;
edge) packages="$build $edge" ;;
publish) packages="$build $publish" ;;
test) packages="$build $tests" ;;
fuzz) packages="$build $fuzz" ;;
coverage) packages="$build $coverage" ;;
all) packages="$build $demo $adaptive $edge $publish $coverage $fuzz" ;;
*) echo "Usage: install_deps.sh [demo|adaptive|edge|publish|test|fuzz|coverage]" >&2; exit 2 ;;
esac

if ! command -v dpkg-query >/dev/null || ! command -v apt-get >/dev/null; then
    echo "install_deps.sh: no Debian here. Install by hand what these packages hold: $packages" >&2
    echo "install_deps.sh: going on; what is missing will show." >&2
    exit 0
fi

missing=
for package in $packages; do
    case $(dpkg-query -W -f='${db:Status-Abbrev}' "$package" 2>/dev/null) in
    ii*) ;;
    *) case " $missing " in *" $package "*) ;; *) missing="$missing $package" ;; esac ;;
    esac
done
if [ -z "$missing" ]; then
    echo "== All packages are installed"
    exit 0
fi

architecture=
case $missing in
*:arm64*) dpkg --print-foreign-architectures | grep -qx arm64 || architecture=arm64 ;;
esac

if [ "$(id -u)" -ne 0 ]; then
    echo "install_deps.sh: not root. As root:" >&2
    [ -z "$architecture" ] || echo "    dpkg --add-architecture $architecture" >&2
    echo "    apt-get update && apt-get install --no-install-recommends$missing" >&2
    exit 1
fi
echo "== Installing:$missing"
export DEBIAN_FRONTEND=noninteractive
[ -z "$architecture" ] || dpkg --add-architecture "$architecture"
apt-get update -q
# shellcheck disable=SC2086 # a list of words
apt-get -o DPkg::Lock::Timeout=300 install -y -q --no-install-recommends $missing
