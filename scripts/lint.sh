#!/usr/bin/env bash
# Checks the formatting of all sources, and runs clang-tidy on the module, the programs and what
# they read and build packets with.
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
git ls-files -z --cached --others --exclude-standard \
    'src/apps/*.cpp' 'src/capture/*.cpp' 'src/capwap/*.cpp' 'src/host/*.cpp' |
    xargs -0 -n 4 -P "$(nproc)" clang-tidy -p "$commands" --quiet
echo "clang-tidy: ok"
