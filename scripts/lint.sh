#!/usr/bin/env bash
# Checks the formatting of all sources, and runs clang-tidy on all of src.
# Usage: scripts/lint.sh BUILD_DIR   (a configured build directory, for its compile commands)
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:?usage: scripts/lint.sh BUILD_DIR}

git ls-files -z --cached --others --exclude-standard '*.cpp' '*.h' |
    xargs -0 clang-format --dry-run --Werror
echo "formatting: ok"

# clang does not know all of gcc's options.
commands=$(mktemp -d)
trap 'rm -rf "$commands"' EXIT
sed 's/ -fno-gnu-unique//g' "$build/compile_commands.json" >"$commands/compile_commands.json"
# One file at a time: its analyzer carries what it knows of a va_list from one file to the next.
git ls-files -z --cached --others --exclude-standard 'src/*.cpp' |
    xargs -0 -n 1 -P "$(nproc)" clang-tidy -p "$commands" --quiet 2>&1 |
    { grep -v 'warnings\? generated' || true; }
echo "clang-tidy: ok"
