#!/usr/bin/env bash
# Compares replaying a capture of two million frames with copying it: kes_engine with one worker and
# with two, and tcpdump, in turns, each time the whole program. Prints a table in Markdown.
# Usage: bench/replay.sh BUILD_DIR [TURNS] [FRAMES]   (7 turns, 2000000 frames, at least)
set -euo pipefail
bin=${1:?usage: bench/replay.sh BUILD_DIR [TURNS] [FRAMES]}/bin
turns=${2:-7} frames=${3:-2000000}
command -v tcpdump >/dev/null || { echo "replay.sh: no tcpdump (Debian package tcpdump)" >&2; exit 1; }
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# A thousand access points send and get 1.7 frames a round each.
"$bin/capwap_gen" --out "$work/capture.pcap" --commands "$work/commands" --aps 1000 --instances 8 \
    --mix all,damaged=0 --rounds $((frames / 1650 + 1)) >"$work/contents"
written=$(awk 'NR == 1 { print $1 }' "$work/contents")
[ "$written" -ge "$frames" ] || { echo "replay.sh: only $written frames" >&2; exit 1; }

run_tcpdump() { tcpdump -r "$work/capture.pcap" -w /dev/null; }
run_engine() {
    "$bin/kes_engine" --exec "$work/commands" --replay "$work/capture.pcap" --workers "$1"
}
run_engine1() { run_engine 1; }
run_engine2() { run_engine 2; }
contenders=(engine1 engine2 tcpdump)

# One turn: its seconds go to the contender's file, its output is kept in case it goes wrong.
turn() {
    local start=$EPOCHREALTIME
    "run_$1" >"$work/output" 2>&1 || { tail -5 "$work/output" >&2; exit 1; }
    local end=$EPOCHREALTIME
    echo "$start $end" | awk '{ printf "%.4f\n", $2 - $1 }' >>"$work/$1.seconds"
}

# The first round brings the capture into memory and does not count; the order changes every round.
for ((round = 0; round <= turns; ++round)); do
    for ((i = 0; i < ${#contenders[@]}; ++i)); do
        turn "${contenders[(round + i) % ${#contenders[@]}]}"
    done
    [ "$round" -gt 0 ] || rm "$work"/*.seconds
done

# Median, lowest and highest of the numbers in a file, with so many digits.
spread() {
    sort -n "$1" | awk -v digits="$2" '{ v[NR] = $1 } END {
        m = NR % 2 ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2
        f = "%." digits "f"; printf f " (" f "–" f ")", m, v[1], v[NR] }'
}
# The same for one contender's seconds in another's, round by round.
ratio() {
    paste "$work/$1.seconds" "$work/$2.seconds" | awk '{ print $1 / $2 }' >"$work/ratios"
    spread "$work/ratios" 2
}
row() { echo "| $1 | $(spread "$work/$2.seconds" 2) | $(ratio "$2" tcpdump) | $(ratio "$2" engine1) |"; }

echo "$written frames, $(stat -c %s "$work/capture.pcap") bytes, $turns turns of each."
echo
echo "| seconds | | / tcpdump | / one worker |"
echo "|---|---:|---:|---:|"
row '`kes_engine`, 1 worker' engine1
row '`kes_engine`, 2 workers' engine2
row '`tcpdump -r FILE -w /dev/null`' tcpdump
