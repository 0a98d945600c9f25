#!/usr/bin/env bash
# Installs what is missing, and builds the Debian packages lyr-host, lyr-host-dev, lyr-host-dpdk and
# python3-lyr-host.
# Usage: scripts/package.sh   (they are in build-package then)
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/packages.sh
ensure_packages "${build_packages[@]}" "${package_packages[@]}"

build=build-package
build_tree "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_INSTALL_PREFIX=/usr \
    -DLYR_BUILD_TESTS=OFF -DLYR_BUILD_BENCH=OFF -DLYR_BUILD_FUZZ=OFF
rm -f "$build"/*.deb
(cd "$build" && umask 022 && cpack -G DEB >cpack.log) || { cat "$build/cpack.log" >&2; exit 1; }
ls "$build"/*.deb
