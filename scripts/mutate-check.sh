#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Regression run of mutated real media through the sorvel tool.
#
#   scripts/mutate-check.sh [BUILD_DIR]      (default build-asan-ubsan)
#
# Builds a corpus from the clips in tests/data/media: a few MP4s as they are,
# some remuxed to Matroska and MPEG-TS with ffmpeg (stream copy, bit-exact
# muxers), and raw H.264/HEVC; then makes MUTATIONS variants of each with
# zzuf (seeded: the same bytes every run on the same tools) plus a few
# truncations, and runs `sorvel probe`, `annexb` and `play` on every file
# with a per-run time limit.  The build is expected to carry AddressSanitizer
# and UndefinedBehaviorSanitizer.
#
# A run passes when no command crashes, hangs past the limit, exits with a
# status the tool does not document (0-6, but not 2, which means this script
# called it wrongly) or prints a sanitizer report.  Refusals of damaged input
# (exit 1, 3, 4, 5, 6) are what the tool should do.  Failures are listed in
# BUILD_DIR/mutate/failures.txt with each one's log beside it.
#
# Environment: MUTATIONS (per source, default 22), TIME_LIMIT (seconds per
# command, default 20), JOBS (parallel runs, default 3: most of a run is loading libraries), SEED (default 1).
set -euo pipefail
cd "$(dirname "$0")/.."

build=${1:-build-asan-ubsan}
tool=$build/tools/sorvel/sorvel
mutations=${MUTATIONS:-22}
limit=${TIME_LIMIT:-20}
jobs=${JOBS:-3}
seed=${SEED:-1}
work=$build/mutate
media=tests/data/media

[[ -x $tool ]] || { echo "mutate-check: $tool is not built" >&2; exit 1; }
for program in zzuf ffmpeg timeout; do
  command -v $program > /dev/null || { echo "mutate-check: $program is missing (scripts/install-deps.sh)" >&2; exit 1; }
done

rm -rf "$work"
mkdir -p "$work/sources" "$work/corpus" "$work/logs"

# ---- sources -------------------------------------------------------------------------
for clip in avc_baseline_176x144.mp4 avc_baseline_176x144.len2.mp4 avc_high_720x576_tff_sar16x11.mp4 \
            avc_main_1920x1080_bt709.oob.mp4 hevc_main_642x362_sar40x33_smpte170m_hvc1.mp4 \
            hevc_main10_640x360_hlg_full_chromaloc2.mp4 avc_baseline_176x144.h264 hevc_main_1920x1080_bt709.h265; do
  cp "$media/$clip" "$work/sources/"
done
remux() {  # remux CLIP EXT
  ffmpeg -nostdin -v error -i "$media/$1" -map 0 -c copy -fflags +bitexact -flags:v +bitexact \
    "$work/sources/${1%.mp4}.$2"
}
remux avc_high_642x362_sar40x33_smpte170m.mp4 mkv
remux hevc_main_1920x1080_bt709.mp4 mkv
remux avc_high_480x270_sar37x20_smpte240m.mp4 ts
remux hevc_main_642x362_sar40x33_smpte170m_hvc1.mp4 ts

# ---- mutations -----------------------------------------------------------------------
# Three byte-flip ratios, from a single damaged box to widespread noise; the
# seed of each file is fixed by its source's position and its own index.
ratios=(0.0005 0.002 0.01)
index=0
for source in "$work"/sources/*; do
  name=$(basename "$source")
  size=$(stat -c %s "$source")
  for ((i = 0; i < mutations; i++)); do
    s=$((seed * 100000 + index * 1000 + i))
    zzuf -s $s -r ${ratios[i % 3]} < "$source" > "$work/corpus/z$s-$name"
  done
  # Truncations at a quarter, half and all but the last few bytes: files that
  # end inside a box, cluster or packet.
  for cut in $((size / 4)) $((size / 2)) $((size - 7)); do
    head -c $cut "$source" > "$work/corpus/t$cut-$name"
  done
  index=$((index + 1))
done
count=$(ls "$work/corpus" | wc -l)

# ---- runs ----------------------------------------------------------------------------
export ASAN_OPTIONS=detect_leaks=1:exitcode=86:abort_on_error=0
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1:exitcode=87
export XPLOG_LEVEL=0  # library lines about damaged input are expected; keep the logs small

run_one() {  # run_one FILE: the three commands, one line per failure on stdout
  local file=$1 base log status
  base=$(basename "$file")
  for command in probe annexb play; do
    log=$work/logs/$base.$command.log
    case $command in
      probe) timeout -k 5 "$limit" "$tool" probe "$file" --json --samples > /dev/null 2> "$log" && status=0 || status=$? ;;
      annexb) timeout -k 5 "$limit" "$tool" annexb "$file" - > /dev/null 2> "$log" && status=0 || status=$? ;;
      # Fast and short: a damaged file must not make play wait on its own.
      play) timeout -k 5 "$limit" "$tool" play "$file" --rate 8 --duration 2 --no-progress > /dev/null 2> "$log" &&
        status=0 || status=$? ;;
    esac
    local problem=
    if [[ $status -eq 124 || $status -eq 137 ]]; then
      problem="hang (over ${limit}s)"
    elif [[ $status -eq 2 || $status -gt 6 ]]; then
      problem="exit $status"
    elif grep -qE "ERROR: (Address|Leak)Sanitizer|runtime error:|SUMMARY: " "$log"; then
      problem="sanitizer report"
    fi
    if [[ -n $problem ]]; then
      echo "$base $command: $problem (log: $log)"
    else
      rm -f "$log"
    fi
  done
}
export -f run_one
export tool work limit

echo "mutate-check: $count files x 3 commands, ${limit}s limit each, $jobs at a time"
started=$(date +%s)
find "$work/corpus" -type f | sort | xargs -P "$jobs" -I{} bash -c 'run_one "$1"' _ {} > "$work/failures.txt"
elapsed=$(($(date +%s) - started))

if [[ -s $work/failures.txt ]]; then
  echo "mutate-check: $(wc -l < "$work/failures.txt") failing runs in ${elapsed}s:"
  cat "$work/failures.txt"
  exit 1
fi
echo "mutate-check: all $count files passed in ${elapsed}s"
