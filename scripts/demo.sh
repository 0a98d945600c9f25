#!/usr/bin/env bash
# Installs what is missing, builds, and runs the main job: a capture of a few hundred access points
# is replayed through the module, and every packet arrives at the service instance that owns it.
# Usage: scripts/demo.sh [ACCESS-POINTS [INSTANCES]]   (default: 300 access points, 8 instances)
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/packages.sh
ensure_packages "${build_packages[@]}"

access_points=${1:-300}
instances=${2:-8}
build=build-demo
out=$build/demo

build_tree "$build" -DCMAKE_BUILD_TYPE=Release \
    -DLYR_BUILD_TESTS=OFF -DLYR_BUILD_BENCH=OFF -DLYR_BUILD_FUZZ=OFF
rm -rf "$out"
mkdir -p "$out"

show() {
    printf '\n$ %s\n' "$*"
    "$@"
}

show "$build/bin/capwap_gen" --seed 1 --aps "$access_points" --instances "$instances" \
    --out "$out/session.pcap" --commands "$out/session.commands"
show "$build/bin/kes_engine" --exec "$out/session.commands" --rx-port 7 --workers 2 \
    --replay "$out/session.pcap" --out "$out/instances" --log "$out/engine.log" \
    2>"$out/commands.log" | tee "$out/report.txt"

if ! command -v tshark >/dev/null; then
    echo
    echo "tshark is not installed: no second count of what the instances received."
    exit 0
fi
echo
echo "The files of the instances, counted by tshark:"
printf '%8s  %-5s %9s %9s\n' instance type reported tshark
awk '$1 ~ /^[0-9]+$/ && ($2 == "cwp" || $2 == "wapi") { print $1, $2, $3 }' "$out/report.txt" |
    while read -r instance type reported; do
        counted=$(tshark -r "$out/instances/instance-$instance-$type.pcap" \
            -T fields -e frame.number 2>/dev/null | wc -l)
        printf '%8s  %-5s %9s %9s\n' "$instance" "$type" "$reported" "$counted"
        [ "$reported" = "$counted" ] || { echo "demo.sh: the counts differ" >&2; exit 1; }
    done
