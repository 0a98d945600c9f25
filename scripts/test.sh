#!/usr/bin/env bash
# Installs what is missing, builds everything and runs the tests.
# Usage: scripts/test.sh [plain|address|thread]...   (default: plain)
#   plain    optimised build, all tests
#   address  the tests under AddressSanitizer and UndefinedBehaviorSanitizer
#   thread   the tests under ThreadSanitizer
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/packages.sh
ensure_packages "${build_packages[@]}" "${test_packages[@]}"

run() {
    local name=$1
    shift
    echo "== tests: $name =="
    build_tree "build-$name" "$@"
    # No test takes a minute, on a busy machine and under a sanitizer: one that hangs fails.
    ctest --test-dir "build-$name" --output-on-failure --timeout 300 -j "$(nproc)"
}

for kind in "${@:-plain}"; do
    case "$kind" in
    plain) run plain -DCMAKE_BUILD_TYPE=RelWithDebInfo ;;
    address) run address -DCMAKE_BUILD_TYPE=RelWithDebInfo -DLYR_SANITIZE=address,undefined -DLYR_BUILD_BENCH=OFF ;;
    thread) run thread -DCMAKE_BUILD_TYPE=RelWithDebInfo -DLYR_SANITIZE=thread -DLYR_BUILD_BENCH=OFF ;;
    *)
        echo "test.sh: unknown kind of run '$kind': plain, address or thread" >&2
        exit 2
        ;;
    esac
done
