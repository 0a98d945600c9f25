#!/usr/bin/env bash
# Builds the benchmarks, runs all of them, and prints the tables of bench/README.md and of
# docs/reconciliation.md. Takes some five minutes, for which the machine should be quiet.
# Usage: bench/run.sh [--quick] [BUILD_DIR]
#   --quick     a look at whether all runs, in a minute; its figures mean nothing
#   BUILD_DIR   where to build [build-bench]; the results that were measured stay in its bench/
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/packages.sh

repetitions=9 min_time=0.01 rounds=(--rounds 15 --seconds 0.1) turns=7 frames=2000000
if [ "${1:-}" = --quick ]; then
    repetitions=1 min_time=0.001 rounds=(--rounds 1 --seconds 0.01) turns=1 frames=100000
    shift
fi
[[ $# -le 1 && ${1:-} != -* ]] || { echo "usage: bench/run.sh [--quick] [BUILD_DIR]" >&2; exit 2; }
build=${1:-build-bench}
bin=$build/bin results=$build/bench

ensure_packages "${build_packages[@]}" "${bench_packages[@]}"
{
    configure_tree "$build" -DCMAKE_BUILD_TYPE=Release -DLYR_BUILD_TESTS=OFF -DLYR_BUILD_FUZZ=OFF
    cmake --build "$build" -j "$(nproc)" \
        --target peer_bench lyr_bench sweep_bench listing_bench kes_engine capwap_gen lyr_host
} >&2

# google PROGRAM: its results go to a file. Its own table is of little use.
google() {
    "$bin/$1" --benchmark_min_time="$min_time" --benchmark_repetitions="$repetitions" \
        --benchmark_enable_random_interleaving=true --benchmark_out="$results/$1.json" \
        >"$results/$1.log" 2>&1 || { tail -3 "$results/$1.log" >&2; exit 1; }
}
table() { bench/table.py "$@"; }
heading() { printf '\n%s\n\n' "$1"; }

printf '%s: %s processors, %s; %s; commit %s\n' "$(date -u +%F)" "$(nproc)" \
    "$(sed -n 's/^model name[[:space:]]*: //p' /proc/cpuinfo | head -1)" \
    "$(${CXX:-c++} --version | head -1)" "$(git rev-parse --short HEAD 2>/dev/null || echo unknown)"

heading "## Peers"
"$bin/peer_bench" "${rounds[@]}"

google lyr_bench
lyr=$results/lyr_bench.json
heading "## The hook and its steps"
table --only '(hook/.*|path/.*)diagnostics:0|handoff|lookup|step' "$lyr"
heading "### Ratios"
table --ratio path/control_ipv4/tunnels:{18000,1000}/diagnostics:0 \
    --ratio path/control_ipv6/tunnels:{18000,1000}/diagnostics:0 \
    --ratio step/source_match/position:{7,0} \
    --ratio hook/{udp_other_port,tcp}/tunnels:18000/diagnostics:0 "$lyr"
heading "## Diagnostics"
table --only 'hook/.*diagnostics:1|receive|transmit' "$lyr"
heading "## Writers"
table --only writer --unit ns "$lyr"
echo
table --only writer/lock --counter slow_ns --unit 'ns, slowest hundredth' "$lyr"

google sweep_bench
heading "## What an audit's finish costs the packets"
table --counter real_time --unit 'µs' "$results/sweep_bench.json"

heading "## What a list costs a writer, and the packets that meet it"
"$bin/listing_bench" "$build/lib/liblyr_host.so" "$turns"

heading "## Replaying a capture"
bench/replay.sh "$build" "$turns" "$frames"
