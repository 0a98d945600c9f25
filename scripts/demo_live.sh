#!/usr/bin/env bash
# Real packets on real interfaces, within a minute: a hundred access points in one network namespace,
# the engine on a veth pair in another, and three service instances behind taps in namespaces of their
# own. Each access point is served by the instance that owns it and by no other. Then one instance
# stops: its access points, and only they, go unanswered, and the drop alarm comes up. It returns, they
# are served again, and the alarm is restored.
# Usage: scripts/demo_live.sh [BUILD-DIR]   (default: builds build-demo)
# Exit status: 0 shown, or skipped with the reason; 1 something was not as it should be.
set -euo pipefail
cd "$(dirname "$0")/.."

skip() {
    echo "demo_live.sh: skipped: $*"
    exit 0
}
fail() {
    echo "demo_live.sh: $*" >&2
    [ ! -s "$work/engine.error" ] || { echo "the engine's last words:"; tail -n 8 "$work/engine.error"; } >&2
    exit 1
}

[ "$(id -u)" -eq 0 ] || skip "network namespaces and raw sockets take root"
. scripts/packages.sh
if [ $# -eq 0 ]; then
    ensure_packages "${build_packages[@]}" "${live_packages[@]}"
    build=build-demo
    build_tree "$build" -DCMAKE_BUILD_TYPE=Release \
        -DLYR_BUILD_TESTS=OFF -DLYR_BUILD_BENCH=OFF -DLYR_BUILD_FUZZ=OFF
else
    build=$1
fi
bin=$(realpath "$build")/bin
[ -x "$bin/kes_dpdk" ] || skip "$build has no kes_dpdk: there is no DPDK (libdpdk-dev) to build it with"
[ -c /dev/net/tun ] || skip "there is no /dev/net/tun"

access_points=100 instances=3 stopped=2 controller=10.0.0.1
name=lyr$$
work=$(mktemp -d)
socket=$work/engine.sock
pids=()

cleanup() {
    local pid ns
    for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
    wait 2>/dev/null || true
    for ns in aps engine $(seq 0 $((instances - 1))); do
        ip netns del "$name-$ns" 2>/dev/null || true
    done
    rm -rf "$work"
}
trap cleanup EXIT
ip netns add "$name-engine" 2>"$work/error" || skip "no network namespaces: $(cat "$work/error")"

start() { # start LOG NAMESPACE COMMAND...: in the background; its process id is in $!
    ip netns exec "$name-$2" "${@:3}" >"$work/$1" 2>"$work/$1.error" &
    pids+=($!)
}
# until_true SECONDS WHAT COMMAND...
until_true() {
    local end=$((SECONDS + $1)) what=$2
    until "${@:3}"; do
        [ $SECONDS -lt $end ] || fail "after $1 seconds still not: $what"
        sleep 0.2
    done
}
ask() { "$bin/lyrctl" --control "$socket" "$@"; }
# The access points' last line, or one key of it.
situation() { tail -n 1 "$work/aps"; }
value() { situation | python3 -c "import json, sys; print(json.load(sys.stdin)[sys.argv[1]])" "$1"; }
are_served() { [ "$(value served 2>/dev/null)" = "$1" ]; }
alarm_is() { ask inspect g_lyrKesMsgDropStat | grep -q "^alarmRaised  *$1\$"; }
say() { printf '\n%5.1f s  %s\n' "$(awk "BEGIN { print $EPOCHREALTIME - $began }")" "$*"; }
began=$EPOCHREALTIME

# --- the wire between the access points and the engine ---
ip netns add "$name-aps"
ip link add aps0 netns "$name-aps" type veth peer name wire0 netns "$name-engine"
ip -n "$name-aps" addr add 10.127.255.254/8 dev aps0
ip -n "$name-aps" link set lo up
ip -n "$name-aps" link set aps0 up
ip -n "$name-aps" route add local 10.64.0.0/16 dev lo # every address of it is the access points'
ip -n "$name-engine" link set lo up
ip -n "$name-engine" link set wire0 up
mac=$(ip -n "$name-engine" -json link show wire0 | python3 -c 'import json, sys; print(json.load(sys.stdin)[0]["address"])')

# --- the engine: an lcore that forwards, the wire, and a tap for each instance ---
printf '%s\n' "source add 1 $controller" 'tunnel default --node 0' >"$work/commands"
ports=() roles=()
for ((i = 0; i < instances; ++i)); do
    ports+=(--vdev "net_tap$i,iface=instance$i")
    roles+=(--instance "$i=net_tap$i")
done
start engine engine env LD_PRELOAD="$bin/../lib/libfast_clock.so" \
    "$bin/kes_dpdk" -l 0,1 --no-huge -m 512 --no-pci --no-telemetry --file-prefix "$name" \
    --vdev net_af_packet0,iface=wire0 "${ports[@]}" -- \
    "${roles[@]}" --channel 64 --exec "$work/commands" --control "$socket" --log "$work/log" \
    --capability WCWP_SPEC_SVC_NUM=$((instances - 1)) --report json
engine=$!
until_true 15 "the engine serves clients" test -S "$socket"

# --- the instances: their ends of the taps, with the controller's address and the wire's MAC ---
start_responder() {
    start "responder$1" "$1" "$bin/capwap_responder" --address $controller --control "$socket" \
        --node "$1" --nodes $instances
    responders[$1]=$!
}
responders=()
for ((i = 0; i < instances; ++i)); do
    ip netns add "$name-$i"
    ip -n "$name-engine" link set "instance$i" netns "$name-$i"
    ip -n "$name-$i" link set "instance$i" address "$mac"
    ip -n "$name-$i" addr add $controller/8 brd + dev "instance$i"
    ip -n "$name-$i" link set lo up
    ip -n "$name-$i" link set "instance$i" up
    start "tcpdump$i" "$i" tcpdump --immediate-mode -i "instance$i" -Q in -w "$work/instance$i.pcap" \
        "udp and dst host $controller and dst portrange 5246-5247"
    captures[i]=$!
    start_responder "$i"
done

# --- all are served ---
start aps aps "$bin/capwap_aps" --aps $access_points --controller $controller --json --every 0.5 \
    --echo 500 --keepalive 1000 --retransmit 300 --max-retransmit 3
crowd=$!
until_true 20 "all $access_points access points are served" are_served $access_points
say "all $access_points access points are served: $(value byController)"
owned=$(value byController | python3 -c "import ast, sys; print(ast.literal_eval(sys.stdin.read())['instance-$stopped'])")

# --- one instance stops ---
kill "${responders[$stopped]}"
wait "${responders[$stopped]}" || true
cp "$work/responder$stopped" "$work/served-before"
ip -n "$name-$stopped" link set "instance$stopped" down
until_true 20 "the $owned access points of instance $stopped are unserved" \
    are_served $((access_points - owned))
say "instance $stopped has stopped: $(value served) served, $(value unserved) not"
until_true 20 "the drop alarm is raised" alarm_is true
say "the drop alarm is raised: $(ask inspect g_lyrKesMsgDropStat | grep dropped | tr -s ' ' | head -n 1)"
situation | python3 -c '
import json, sys
unserved = {a["address"] + " " + str(a["controlPort"]) for a in json.load(sys.stdin)["unservedAccessPoints"]}
own = set(open(sys.argv[1]).read().splitlines())
sys.exit(0 if unserved == own else "not those of the stopped instance: %s" % sorted(unserved ^ own))
' "$work/served-before" || fail "others than its own went unanswered"
say "unanswered are the $owned access points of instance $stopped, and no others"

# --- it returns ---
ip -n "$name-$stopped" link set "instance$stopped" up
start_responder $stopped
until_true 20 "all are served again" are_served $access_points
say "instance $stopped is back: all are served again: $(value byController)"
until_true 30 "the drop alarm is restored" alarm_is false
say "the drop alarm is restored"
ask top --once 2>/dev/null || true

# --- the end: in order, and counted twice ---
kill "$crowd"
wait "$crowd" || fail "not all access points were served at the end"
sleep 0.5
kill -INT "$engine"
wait "$engine" || fail "the engine did not end well: $(tail -n 5 "$work/engine.error")"
for ((i = 0; i < instances; ++i)); do
    # A tap goes with the engine, and tcpdump with the tap.
    kill "${responders[$i]}" "${captures[$i]}" 2>/dev/null || true
    wait "${responders[$i]}" "${captures[$i]}" || true
done
python3 - "$work" $instances $stopped <<'EOF'
import json, subprocess, sys
work, instances, stopped = sys.argv[1], int(sys.argv[2]), int(sys.argv[3])
report = json.load(open(work + "/engine"))
print("\n%-10s %10s %10s %10s %10s" % ("instance", "given", "sent", "refused", "tshark"))
wrong = [] if report["conserved"] else ["the report is not conserved"]
for number in range(instances):
    given = sum(i["cwp"] for i in report["instances"] if i["instance"] == number)
    port = next(p for p in report["ports"] if p.get("instance") == number)
    seen = subprocess.run(["tshark", "-r", work + "/instance%d.pcap" % number, "-T", "fields", "-e", "frame.number"],
                          capture_output=True, text=True).stdout.count("\n")
    print("%-10d %10d %10d %10d %10d" % (number, given, port["sentPackets"], port["refused"], seen))
    served = set(open(work + "/responder%d" % number).read().splitlines())
    for other in range(number):
        if served & set(open(work + "/responder%d" % other).read().splitlines()):
            wrong.append("instances %d and %d have served the same access point" % (number, other))
    if number != stopped and seen != given:
        wrong.append("instance %d was given %d packets, and tshark counts %d" % (number, given, seen))
sys.exit("demo_live.sh: " + "; ".join(wrong) if wrong else 0)
EOF
say "every access point was served by its own instance, and the counts agree"
