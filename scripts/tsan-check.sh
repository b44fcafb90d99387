#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# The test families that use threads, under ThreadSanitizer.
#
#   scripts/tsan-check.sh [BUILD_DIR]      (default build-tsan, configured by `make ... SANITIZE=thread`)
#
# Runs the platform tests whole (the object runtime, notifications, buffer
# attachments, dispatch, logging and mutexes all have threaded cases) and the
# framework families with threads: simple queue, buffer queue, memory pool,
# clocks and timebases, attachments, objects, sample-buffer copies, the
# metadata registry and format lists.  Death tests are left out: they fork,
# which ThreadSanitizer makes slow, and they have no threads of their own.
# Any report fails the run (halt_on_error), as does any failing test.
set -euo pipefail
cd "$(dirname "$0")/.."

build=${1:-build-tsan}
for program in "$build/tests/platform_tests" "$build/tests/sorvel_tests"; do
  [[ -x $program ]] || { echo "tsan-check: $program is not built" >&2; exit 1; }
done

export TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1:exitcode=66"

# ThreadSanitizer in clang 14 maps its shadow at fixed addresses and fails
# at start-up ("unexpected memory mapping") on kernels that randomise mmap
# with more bits than it expects; without address randomisation it runs.
wrap=()
if ! "$build/tests/platform_tests" --gtest_filter=XPMutexTest.* > /dev/null 2>&1; then
  wrap=(setarch "$(uname -m)" -R)
  "${wrap[@]}" "$build/tests/platform_tests" --gtest_filter=XPMutexTest.* > /dev/null ||
    { echo "tsan-check: ThreadSanitizer programs do not start here" >&2; exit 1; }
  echo "tsan-check: running without address randomisation (setarch -R)"
fi

families='SVSimpleQueue*:*BufferQueue*:SVMemoryPool*:SVClock*:SVTimebase*:*Attachment*:SVObject*'
families+=':SVSampleBufferCopy*:SVMetadataRegistry*:SVAudioFormatDescriptionFormatList*'

echo "=== platform_tests under ThreadSanitizer"
"${wrap[@]}" "$build/tests/platform_tests" --gtest_filter='-*Death*' --gtest_brief=1
echo "=== sorvel_tests (threaded families) under ThreadSanitizer"
"${wrap[@]}" "$build/tests/sorvel_tests" --gtest_filter="$families:-*Death*" --gtest_brief=1
