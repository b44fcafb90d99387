#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# The test families that use threads, under ThreadSanitizer.
#
#   scripts/tsan-check.sh [BUILD_DIR]      (default build-tsan, configured by `make ... SANITIZE=thread`)
#
# Runs both test programs whole, death tests aside: every family with
# threads is in them (simple queue, buffer queue, memory pool, clocks and
# timebases with their notifications, attachments, the object runtime's
# retain/release, sample-buffer copies, the metadata registry, format lists,
# dispatch, logging), and the rest costs seconds.  Death tests are left out:
# they fork, which ThreadSanitizer makes slow, they have no threads of their
# own, and some misuse a mutex on purpose, which ThreadSanitizer rightly
# reports.
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
if ! "$build/tests/platform_tests" --gtest_list_tests > /dev/null 2>&1; then
  wrap=(setarch "$(uname -m)" -R)
  "${wrap[@]}" "$build/tests/platform_tests" --gtest_list_tests > /dev/null ||
    { echo "tsan-check: ThreadSanitizer programs do not start here" >&2; exit 1; }
  echo "tsan-check: running without address randomisation (setarch -R)"
fi

echo "=== platform_tests under ThreadSanitizer"
"${wrap[@]}" "$build/tests/platform_tests" --gtest_filter='-*Death*:XPMutexTest.MisuseIsAFatalStop*' --gtest_brief=1
echo "=== sorvel_tests under ThreadSanitizer"
"${wrap[@]}" "$build/tests/sorvel_tests" --gtest_filter='-*Death*' --gtest_brief=1
