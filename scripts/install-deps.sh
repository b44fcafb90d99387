#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Installs the Debian packages that building and testing Sorvel needs, and
# only those that are missing. Says nothing when everything is present.
# Written for Debian 12; run as root, or as a user who may use sudo.
set -euo pipefail

export DEBIAN_FRONTEND=noninteractive

# package -> why it is needed
declare -A why=(
    [clang]="the compiler (blocks and constant CFStrings need clang)"
    [cmake]="the build system"
    [ninja-build]="the build tool CMake generates for"
    [make]="runs the top-level Makefile"
    [pkg-config]="the install test builds a client through sorvel.pc"
    [libblocksruntime-dev]="the runtime behind clang's blocks (Block.h, libBlocksRuntime)"
    [libgtest-dev]="GoogleTest, for the unit tests"
    [libbenchmark-dev]="Google Benchmark, for make bench"
    [libavformat-dev]="FFmpeg's demuxers, which the sorvel tool reads files with"
    [clang-format]="the format check (make format-check)"
    [git]="the format check lists the tracked files"
    [gcc]="GCC clients: the header test and the install test build with GCC too"
    [g++]="GCC C++ clients of the installed library (install test)"
    [doxygen]="make docs: the API reference from the headers"
    [python3]="make docs: the input filter that reads the headers' plain comments"
    [debhelper]="CI builds the Debian packages (debian/)"
    [dpkg-dev]="dpkg-buildpackage, for the Debian packages"
    [lintian]="CI checks the Debian packages"
    [groff-base]="the sorvel tests render its man page to check it for warnings"
)
wanted=(clang cmake ninja-build make pkg-config libblocksruntime-dev libgtest-dev libbenchmark-dev libavformat-dev
    clang-format git gcc g++ doxygen python3 debhelper dpkg-dev lintian groff-base)
# make mutate-check: its corpus is made from the test clips at run time.
why[zzuf]="the seeded byte mutator behind make mutate-check"
why[ffmpeg]="make mutate-check remuxes test clips to Matroska and MPEG-TS"
wanted+=(zzuf ffmpeg)
why[libavcodec-dev]="FFmpeg's decoders, which sorvel play decodes the sound with"
why[libpulse-dev]="the PulseAudio client library, which sorvel play plays the sound through"
why[pulseaudio]="the audio server (with a null sink) that the lip-sync tests play to"
why[pulseaudio-utils]="pactl, with which the tests' audio server is checked and stopped"
why[ffmpeg]="makes test clips: remuxes for make mutate-check, beeps for the lip-sync test"
wanted+=(libavcodec-dev libpulse-dev pulseaudio pulseaudio-utils)

# `install-deps.sh --bench` also installs the libraries the benchmarks
# measure Sorvel against; the benchmark build skips any that are absent.
if [[ ${1:-} == --bench ]]; then
    why[libavutil-dev]="FFmpeg's libavutil, a peer the benchmarks compare against"
    why[libavcodec-dev]="FFmpeg's libavcodec, a peer the benchmarks compare against"
    why[libgstreamer1.0-dev]="GStreamer, a peer the benchmarks compare against"
    why[libboost-dev]="Boost.Lockfree, a peer the benchmarks compare against"
    why[ffmpeg]="make bench-report: makes its test video and is the whole-program peer (with ffprobe)"
    why[hyperfine]="make bench-report: times the whole-program comparisons"
    why[time]="make bench-report: /usr/bin/time -v reports the programs' peak memory"
    why[python3]="make bench-report: runs scripts/bench-report.py"
    wanted+=(ffmpeg hyperfine time python3)
    why[libgstreamer-plugins-base1.0-dev]="GStreamer's audio library (gst_audio_buffer_map), a peer of the audio benchmarks"
    wanted+=(libavutil-dev libavcodec-dev libgstreamer1.0-dev libboost-dev libgstreamer-plugins-base1.0-dev)
fi

if ! command -v dpkg-query >/dev/null 2>&1 || ! command -v apt-get >/dev/null 2>&1; then
    echo "install-deps: this script installs Debian packages and needs dpkg and apt-get." >&2
    echo "install-deps: on another system install clang, cmake, ninja, pkg-config, BlocksRuntime," >&2
    echo "install-deps: GoogleTest, Google Benchmark and libavformat yourself." >&2
    exit 1
fi

installed() {
    [[ $(dpkg-query -W -f='${db:Status-Status}' "$1" 2>/dev/null || true) == installed ]]
}

# The sanitizer runtimes come in a package named after clang's major version.
clang_major() {
    if command -v clang >/dev/null 2>&1; then
        clang -dumpversion | cut -d. -f1
        return
    fi
    # clang is about to be installed: ask apt which clang-N it depends on.
    apt-cache depends clang 2>/dev/null | sed -n 's/.*Depends: clang-\([0-9][0-9]*\)$/\1/p' | head -n1
}

as_root=()
if [[ $(id -u) -ne 0 ]]; then
    if command -v sudo >/dev/null 2>&1; then
        as_root=(sudo --preserve-env=DEBIAN_FRONTEND)
    else
        as_root=(__no_root__)
    fi
fi

run_as_root() {
    if [[ ${as_root[0]:-} == __no_root__ ]]; then
        echo "install-deps: installing packages needs root, and sudo is not available." >&2
        echo "install-deps: as root, run:  apt-get update && apt-get install -y --no-install-recommends ${missing[*]:-clang}" >&2
        exit 1
    fi
    "${as_root[@]}" "$@"
}

missing=()
for package in "${wanted[@]}"; do
    installed "$package" || missing+=("$package")
done

updated=0
major=$(clang_major)
if [[ -z $major ]]; then
    # Nothing knows of clang yet: a fresh machine whose package lists are empty.
    echo "install-deps: refreshing the package lists to find clang's version"
    run_as_root apt-get update -qq || { echo "install-deps: apt-get update failed" >&2; exit 1; }
    updated=1
    major=$(clang_major)
fi
if [[ -z $major ]]; then
    echo "install-deps: could not tell which clang version apt would install" >&2
    exit 1
fi
rt=libclang-rt-$major-dev
why[$rt]="sanitizer runtimes for clang $major (SANITIZE=address,undefined / thread)"
installed "$rt" || missing+=("$rt")

if [[ ${#missing[@]} -eq 0 ]]; then
    exit 0
fi

echo "install-deps: these Debian packages are missing and will be installed:"
for package in "${missing[@]}"; do
    printf '  %-24s %s\n' "$package" "${why[$package]}"
done
if [[ ${#as_root[@]} -gt 0 && ${as_root[0]} != __no_root__ ]]; then
    echo "install-deps: not running as root, so through sudo"
fi

if [[ $updated -eq 0 ]]; then
    run_as_root apt-get update -qq || { echo "install-deps: apt-get update failed" >&2; exit 1; }
fi
run_as_root apt-get install -y -qq --no-install-recommends "${missing[@]}" || {
    echo "install-deps: apt-get install failed for: ${missing[*]}" >&2
    exit 1
}
echo "install-deps: done"
