#!/bin/sh
# Makes the clip that live_host plays when it is given no other file: a moving test pattern with a running
# clock, 1280x720 at 30 frames/s, a key frame every second, no B-frames, and a 440 Hz tone in 44.1 kHz stereo.
#
#   scripts/make_clip.sh [FILE]      default: examples/media/clip.mp4
set -eu

root=$(cd "$(dirname "$0")/.." && pwd)
out=${1:-$root/examples/media/clip.mp4}

command -v ffmpeg >/dev/null || { echo "make_clip.sh: ffmpeg is not installed" >&2; exit 1; }

# One encoder thread and the bitexact flags, so that the same ffmpeg makes the same file again.
# filter_units drops x264's own SEI (type 6), which only names the encoder.
ffmpeg -hide_banner -loglevel error -y \
    -f lavfi -i testsrc2=size=1280x720:rate=30:duration=6 \
    -f lavfi -i sine=frequency=440:sample_rate=44100:duration=6 \
    -map 0:v -map 1:a -flags:v +bitexact -flags:a +bitexact -fflags +bitexact -map_metadata -1 \
    -c:v libx264 -preset slow -profile:v main -pix_fmt yuv420p -threads:v 1 \
    -b:v 1600k -maxrate 1800k -bufsize 1800k -g 30 -keyint_min 30 -sc_threshold 0 -bf 0 \
    -bsf:v filter_units=remove_types=6 \
    -c:a aac -b:a 96k -ac 2 \
    -movflags +faststart "$out"

ls -l "$out"
