#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Checks (or with --fix, applies) .clang-format on every C and C++ file that
# git tracks, test data aside.  Exits 1 and lists the files that differ.
set -euo pipefail
cd "$(dirname "$0")/.."

mapfile -t files < <(git ls-files '*.c' '*.h' '*.cpp' | grep -v '^tests/data/')
if [[ ${1:-} == --fix ]]; then
    clang-format -i "${files[@]}"
    exit 0
fi
bad=()
for f in "${files[@]}"; do
    clang-format --dry-run --Werror "$f" >/dev/null 2>&1 || bad+=("$f")
done
if [[ ${#bad[@]} -gt 0 ]]; then
    echo "check-format: these files differ from .clang-format (run: make format):" >&2
    printf '  %s\n' "${bad[@]}" >&2
    exit 1
fi
