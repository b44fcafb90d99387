#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Installs a Sorvel build into a temporary prefix, checks the installed
# layout, then builds and runs tests/install/consumer.c twice against it:
# as a CMake project using find_package(Sorvel), and with a plain compiler
# line from `pkg-config --cflags --libs sorvel`.
#
# usage: run-install-test.sh BUILD_DIR CONSUMER_DIR C_COMPILER NINJA [SANITIZERS]
set -euo pipefail

build_dir=$1
consumer_dir=$2
cc=$3
ninja=$4
sanitize=${5:-}
examples_dir=$(cd "$consumer_dir/../../examples" && pwd)

prefix=$(mktemp -d /tmp/sorvel-install-XXXXXX)
trap 'rm -rf "$prefix"' EXIT

step() { printf '== %s\n' "$*"; }
fail() { printf 'install test: %s\n' "$*" >&2; exit 1; }

step "cmake --install into $prefix"
cmake --install "$build_dir" --prefix "$prefix" >"$prefix/install.log" || { cat "$prefix/install.log"; fail "cmake --install failed"; }

# GNUInstallDirs picks lib/ or lib64/ or lib/<multiarch>/ depending on the
# configured prefix; follow whatever the package config landed in.
config=$(find "$prefix" -name SorvelConfig.cmake -print -quit)
[[ -n $config ]] || fail "no SorvelConfig.cmake installed"
libdir=$(dirname "$(dirname "$(dirname "$config")")")

step "installed layout"
expect() { [[ -e $1 || -L $1 ]] || fail "missing $1"; }
expect "$prefix/include/Sorvel/platform/CoreFoundation/CoreFoundation.h"
expect "$prefix/include/Sorvel/platform/XPLog/XPLog.h"
expect "$prefix/include/Sorvel/platform/dispatch/dispatch.h"
for lib in Sorvel SorvelPlatform; do
    # libX.so -> libX.so.MAJOR -> libX.so.MAJOR.MINOR.PATCH
    [[ -L $libdir/lib$lib.so ]] || fail "lib$lib.so is not a symlink"
    real=$(readlink -f "$libdir/lib$lib.so")
    [[ -f $real ]] || fail "lib$lib.so points nowhere"
    soname=$(readelf -d "$real" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')
    [[ $soname == lib$lib.so.* ]] || fail "lib$lib has SONAME '$soname'"
    [[ -L $libdir/$soname ]] || fail "no $soname symlink"
done
# Every defined export carries the library's own version node.
for pair in Sorvel:SORVEL_0 SorvelPlatform:SORVEL_PLATFORM_1; do
    lib=${pair%%:*} node=${pair#*:}
    nodes=$(objdump -T "$libdir/lib$lib.so" | awk '$2 == "g" && $4 != "*UND*" { print $(NF - 1) }' | sort -u)
    [[ $nodes == "$node" ]] || fail "lib$lib exports under version nodes '$nodes', not $node alone"
done
# The platform library exports its binary names alone (SorvelPlatform_ and
# the well-known name), never a well-known name another library may define;
# the one exception is the anchor clang itself names for constant strings.
plain=$(nm -D --defined-only "$libdir/libSorvelPlatform.so" | awk '$2 != "A" { print $3 }' \
    | grep -v -e '^SorvelPlatform_' -e '^__CFConstantStringClassReference@' || true)
[[ -z $plain ]] || fail "libSorvelPlatform exports plain names: $plain"
# And every name the installed headers declare is defined: a definition
# compiled without its declaration in sight would have kept the plain name
# and stayed local, leaving its binary name missing here.
declared=$(grep -rh '_ABI_NAME(' "$prefix/include/Sorvel/platform" | grep -v '#define' \
    | grep -oE '(CF|XP|DISPATCH)_ABI_NAME\([A-Za-z0-9_]+\)' | sed -E 's/.*\((.*)\)/SorvelPlatform_\1/' | sort -u)
defined=$(nm -D --defined-only "$libdir/libSorvelPlatform.so" | awk '{ sub(/@.*/, "", $3); print $3 }' | sort -u)
missing=$(comm -23 <(echo "$declared") <(echo "$defined"))
[[ -z $missing ]] || fail "libSorvelPlatform lacks declared exports: $missing"
[[ $(echo "$declared" | wc -l) -gt 300 ]] || fail "too few labelled declarations found in the installed headers"
# libSorvel reaches the platform library by those names too: a Sources file
# that declared a platform call itself instead of including its header
# would show here as a plain reference.
plain=$(nm -D --undefined-only "$libdir/libSorvel.so" | awk '{ print $2 }' \
    | grep -E '^_*k?(CF|CV|CG|Audio|XP|dispatch_)' | grep -v '^__CFConstantStringClassReference@' || true)
[[ -z $plain ]] || fail "libSorvel references the platform by plain names: $plain"
expect "$prefix/include/Sorvel/SVVersion.h"
expect "$libdir/pkgconfig/sorvel-blocks.pc"
expect "$libdir/cmake/Sorvel/SorvelConfigVersion.cmake"
expect "$libdir/cmake/Sorvel/SorvelTargets.cmake"
expect "$libdir/pkgconfig/sorvel.pc"
if find "$prefix/include" -path '*/src/*' | grep -q .; then fail "private sources were installed"; fi

cflags=()
flags=()
if [[ -n $sanitize ]]; then
    # A sanitized Sorvel leaves the sanitizer runtime to the executable, and
    # this C program needs its C++ halves and libstdc++ as well (see the
    # top-level CMakeLists.txt).
    cflags=("-fsanitize=$sanitize")
    flags=("-fsanitize=$sanitize" -fsanitize-link-c++-runtime -lstdc++)
fi

# Each client compiler: the clang that built the library, and GCC (C and
# C++) when it is installed. A sanitized library is only usable from the
# compiler whose sanitizer runtime it was built against, so sanitizer runs
# test clang alone.
compilers=("$cc")
if [[ -z $sanitize ]] && command -v gcc >/dev/null && command -v g++ >/dev/null; then
    compilers+=(gcc)
fi
cxx_of() { case $1 in *clang*) echo "${1/clang/clang++}" ;; *gcc*) echo "${1/gcc/g++}" ;; *) echo c++ ;; esac; }

for client_cc in "${compilers[@]}"; do
    client_cxx=$(cxx_of "$client_cc")
    tag=$(basename "$client_cc")
    step "find_package(Sorvel) consumer, C and C++, $client_cc / $client_cxx"
    CC=$client_cc CXX=$client_cxx cmake -S "$consumer_dir" -B "$prefix/consumer-cmake-$tag" -G Ninja \
        -DCMAKE_MAKE_PROGRAM="$ninja" \
        -DCMAKE_PREFIX_PATH="$prefix" \
        -DCMAKE_BUILD_TYPE=Debug \
        -DCMAKE_C_FLAGS="${cflags[*]:-}" \
        -DCMAKE_CXX_FLAGS="${cflags[*]:-}" \
        -DCMAKE_EXE_LINKER_FLAGS="${flags[*]:-}" >"$prefix/consumer-cmake.log" 2>&1 \
        || { cat "$prefix/consumer-cmake.log"; fail "configuring the consumer with $client_cc failed"; }
    cmake --build "$prefix/consumer-cmake-$tag" >"$prefix/consumer-build.log" 2>&1 \
        || { cat "$prefix/consumer-build.log"; fail "building the consumer with $client_cc failed"; }
    "$prefix/consumer-cmake-$tag/consumer"
    "$prefix/consumer-cmake-$tag/consumer_cxx"

    step "pkg-config consumer, C and C++, $client_cc / $client_cxx"
    export PKG_CONFIG_PATH="$libdir/pkgconfig"
    pc_flags=$(pkg-config --cflags --libs sorvel)
    echo "pkg-config --cflags --libs sorvel: $pc_flags"
    [[ $pc_flags != *-fblocks* ]] || fail "sorvel.pc must stay compiler-neutral"
    # shellcheck disable=SC2086  # pc_flags is a list of words
    "$client_cc" -std=c11 -Wall -Wextra -Werror "${flags[@]}" "$consumer_dir/consumer.c" -o "$prefix/consumer-pc" \
        $pc_flags -Wl,-rpath,"$libdir"
    "$prefix/consumer-pc"
    # shellcheck disable=SC2086
    "$client_cxx" -std=c++17 -Wall -Wextra -Werror "${flags[@]}" -x c++ "$consumer_dir/consumer.c" -x none \
        -o "$prefix/consumer-pc-cxx" $pc_flags -Wl,-rpath,"$libdir"
    "$prefix/consumer-pc-cxx"
    if [[ $client_cc == *clang* ]]; then
        blocks_flags=$(pkg-config --cflags --libs sorvel-blocks)
        echo "pkg-config --cflags --libs sorvel-blocks: $blocks_flags"
        # shellcheck disable=SC2086
        "$client_cc" -std=c11 -Wall -Wextra -Werror "${flags[@]}" -DSORVEL_CONSUMER_EXPECT_BLOCKS=1 \
            "$consumer_dir/consumer.c" -o "$prefix/consumer-pc-blocks" $blocks_flags -Wl,-rpath,"$libdir"
        "$prefix/consumer-pc-blocks"
    fi

    step "examples through find_package(Sorvel) and through pkg-config, $client_cc / $client_cxx"
    CC=$client_cc CXX=$client_cxx cmake -S "$examples_dir" -B "$prefix/examples-$tag" -G Ninja \
        -DCMAKE_MAKE_PROGRAM="$ninja" -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_BUILD_TYPE=Debug \
        -DSORVEL_EXAMPLE_MP4="$examples_dir/../tests/data/media/avc_baseline_176x144.mp4" \
        -DCMAKE_C_FLAGS="${cflags[*]:-}" -DCMAKE_CXX_FLAGS="${cflags[*]:-}" \
        -DCMAKE_EXE_LINKER_FLAGS="${flags[*]:-}" >"$prefix/examples.log" 2>&1 \
        || { cat "$prefix/examples.log"; fail "configuring the examples with $client_cc failed"; }
    cmake --build "$prefix/examples-$tag" >"$prefix/examples.log" 2>&1 \
        || { cat "$prefix/examples.log"; fail "building the examples with $client_cc failed"; }
    (cd "$prefix/examples-$tag" && ctest --output-on-failure >"$prefix/examples.log" 2>&1) \
        || { cat "$prefix/examples.log"; fail "running the examples built with $client_cc failed"; }
    for example in "$examples_dir"/*.c; do
        name=$(basename "$example" .c)
        [[ $name == runtime_tour ]] && continue
        # shellcheck disable=SC2086
        "$client_cc" -std=c11 -Wall -Wextra -Werror "${flags[@]}" "$example" -o "$prefix/$name-pc" $pc_flags \
            -Wl,-rpath,"$libdir" || fail "$name does not build with $client_cc through pkg-config"
        # shellcheck disable=SC2086
        "$client_cxx" -std=c++17 -Wall -Wextra -Werror "${flags[@]}" -x c++ "$example" -x none \
            -o "$prefix/$name-pc-cxx" $pc_flags -Wl,-rpath,"$libdir" \
            || fail "$name does not build with $client_cxx through pkg-config"
    done
done

# Another library exporting dispatch_once, dispatch_async_f and CFRelease
# (each aborts), once with its own symbol version and once without any: the
# dynamic linker lets an unversioned definition satisfy a versioned
# reference, so only the platform's own binary names keep it out.
step "beside another library that exports dispatch_once, dispatch_async_f and CFRelease"
echo 'OTHER_DISPATCH_1 { global: dispatch_*; CFRelease; local: *; };' >"$prefix/other.map"
mkdir -p "$prefix/versioned" "$prefix/unversioned"
"$cc" -shared -fPIC "${cflags[@]}" -Wl,--version-script="$prefix/other.map" "$consumer_dir/other_dispatch.c" \
    -o "$prefix/versioned/libother_dispatch.so"
"$cc" -shared -fPIC "${cflags[@]}" "$consumer_dir/other_dispatch.c" -o "$prefix/unversioned/libother_dispatch.so"
if objdump -T "$prefix/unversioned/libother_dispatch.so" | grep -q OTHER_DISPATCH; then
    fail "the unversioned library carries a version"
fi
for kind in versioned unversioned; do
    other="$prefix/$kind/libother_dispatch.so"
    # Preloaded, it comes first in the process's symbol search order.
    echo "preloaded, $kind"
    LD_PRELOAD="$other" "$prefix/consumer-pc"
    # First on the link line, so first among the program's libraries
    # (--no-as-needed: the program references none of its names, and the
    # point is that it is loaded and searched first all the same).
    echo "first on the link line, $kind"
    # shellcheck disable=SC2086  # pc_flags is a list of words
    "$cc" -std=c11 -Wall -Wextra -Werror "${flags[@]}" "$consumer_dir/consumer.c" -o "$prefix/consumer-other-$kind" \
        -Wl,--no-as-needed -L"$prefix/$kind" -lother_dispatch $pc_flags \
        -Wl,-rpath,"$prefix/$kind" -Wl,-rpath,"$libdir"
    # (A sanitized build puts the C++ runtime ahead of both, which is fine.)
    needed=$(readelf -d "$prefix/consumer-other-$kind" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' \
        | grep -E '^lib(other_dispatch|Sorvel|SorvelPlatform)\.so' | tr '\n' ' ')
    [[ $needed == "libother_dispatch.so libSorvel.so."* ]] || fail "libother_dispatch is not needed ahead of Sorvel ($needed)"
    "$prefix/consumer-other-$kind"
done

step "install test passed"
