#!/usr/bin/env bash
# Compares kes_dpdk with DPDK's own forwarder on the same input: frames that a net_pcap port gives over
# and over, on one forwarding lcore. kes_dpdk passes them through the module's whole receive path to an
# instance whose port discards what it gets; dpdk-testpmd swaps addresses and ports and sends
# (5tswap), or only receives (rxonly). With two lcores kes_dpdk has the same frames from two queues of
# the port, one for each lcore, with flows of its own: half of what an lcore receives belongs to the
# other. In turns; prints tables in Markdown, millions of packets a second.
# Usage: bench/dpdk.sh BUILD_DIR [TURNS [SECONDS]]   (3 turns, at least 3 seconds each)
set -euo pipefail
bin=$(realpath "${1:?usage: bench/dpdk.sh BUILD_DIR [TURNS [SECONDS]]}")/bin
turns=${2:-3} seconds=${3:-3}
for program in dpdk-testpmd tcpdump python3; do
    command -v $program >/dev/null ||
        { echo "dpdk.sh: no $program (Debian packages dpdk-dev, tcpdump, python3)" >&2; exit 1; }
done
[ -x "$bin/kes_dpdk" ] || { echo "dpdk.sh: $bin has no kes_dpdk" >&2; exit 1; }
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
controller=10.0.0.1
frames=30000 # all of them are held in memory

environment() { # environment LCORES INPUT...: a queue for each input
    echo "--lcores $1 --no-huge -m 1024 --no-pci --no-telemetry --file-prefix bench$$" \
        "--vdev net_pcap0,$(printf "rx_pcap=$work/%s.pcap," "${@:2}")infinite_rx=1"
}

# make_input NAME ACCESS-POINTS MIX: what access points send to the controller, all of it and that of
# every other one, and the commands.
make_input() {
    local rounds=$((2 * frames / $2 + 1))
    "$bin/capwap_gen" --out "$work/all.pcap" --commands "$work/$1.commands" --aps "$2" --instances 1 \
        --ipv6 0 --vlan 0 --rounds $rounds --mix "$3" >/dev/null
    tcpdump -r "$work/all.pcap" -w "$work/$1.pcap" -c $frames "dst host $controller" 2>/dev/null
    for queue in 0 1; do
        tcpdump -r "$work/$1.pcap" -w "$work/$1.$queue.pcap" "ip[15] & 1 == $queue" 2>/dev/null
    done
}

# run_engine NAME LCORES INPUT...: millions a second, and the percentage that is taken
run_engine() {
    # Its report has the seconds for which frames came, after its commands.
    timeout --foreground -s INT $((seconds + 4)) "$bin/kes_dpdk" $(environment "${@:2}") --vdev net_null0 -- \
        --port net_pcap0 --instance 0=net_null0 --capability WCWP_SPEC_SVC_NUM=0 --busy --buffers 65536 \
        --exec "$work/$1.commands" --control "$work/socket" --report json \
        >"$work/report" 2>"$work/errors" || [ $? -eq 124 ] || { tail -n 5 "$work/errors" >&2; exit 1; }
    python3 -c 'import json, sys
r = json.load(open(sys.argv[1]))
if r["seconds"] < 1: sys.exit("dpdk.sh: frames came for %g seconds only" % r["seconds"])
print(r["received"] / r["seconds"] / 1e6, 100 * r["taken"] / r["received"])' "$work/report"
}
run_testpmd() { # run_testpmd INPUT MODE
    # It tells a rate each second, once it has started.
    timeout --foreground -s INT $((seconds + 4)) dpdk-testpmd $(environment '0@0,1@1' "$1") -- \
        --forward-mode="$2" --nb-cores=1 --stats-period 1 --auto-start --total-num-mbufs=65536 \
        >"$work/testpmd" 2>&1 || true
    python3 -c 'import re, statistics, sys
rates = [int(n) for n in re.findall(r"Rx-pps:\s+(\d+)", open(sys.argv[1]).read()) if int(n) > 0]
if not rates: sys.exit("dpdk.sh: dpdk-testpmd: " + open(sys.argv[1]).read()[-400:])
print(statistics.median(rates) / 1e6)' "$work/testpmd"
}

make_input 1-tunnel-1% 1 control=1,data=99
make_input 1-tunnel-10% 1 control=10,data=90
make_input 1-tunnel-100% 1 control=1,keepalive=1
make_input 18000-tunnels-1% 18000 control=1,data=99
make_input 18000-tunnels-10% 18000 control=10,data=90
make_input 18000-tunnels-100% 18000 control=1,keepalive=1
inputs=(1-tunnel-{1,10,100}% 18000-tunnels-{1,10,100}%)

for ((turn = 0; turn < turns; ++turn)); do
    for input in "${inputs[@]}"; do
        contenders=("engine 0@0,1@1 $input" "testpmd 5tswap" "testpmd rxonly")
        # A single access point is a single flow, which stays on one lcore.
        [[ $input == 1-tunnel-* ]] || contenders+=("engine2 0@0,1@0,2@1 $input.0 $input.1")
        for ((i = 0; i < ${#contenders[@]}; ++i)); do
            read -r who how <<<"${contenders[(turn + i) % ${#contenders[@]}]}"
            case $who in
            engine | engine2) result=$(run_engine "$input" $how) ;;
            testpmd) result=$(run_testpmd "$input" "$how") who=$how ;;
            esac
            echo "$input $who $result" >>"$work/results"
        done
    done
done

python3 - "$work/results" <<'EOF'
import collections, statistics, sys
rates, share = collections.defaultdict(list), {}
for line in open(sys.argv[1]):
    name, who, rate, *taken = line.split()
    rates[name, who].append(float(rate))
    if taken:
        share[name] = float(taken[0])
def spread(values, digits):
    if not values:
        return "–"
    f = lambda v: "%.*f" % (digits, v)
    return "%s (%s–%s)" % (f(statistics.median(values)), f(min(values)), f(max(values)))
def ratio(name, a, b):
    return spread([x / y for x, y in zip(rates[name, a], rates[name, b])], 2)
print("| millions of packets a second | taken | 1 lcore | 2 lcores | 5tswap | rxonly | 1 lcore / 5tswap | 1 lcore / rxonly | 2 lcores / 1 |")
print("|---|---:|---:|---:|---:|---:|---:|---:|---:|")
for name in share:
    print("| %s | %.0f %% | %s | %s | %s | %s | %s | %s | %s |" % (
        name.rsplit("-", 1)[0].replace("-", " "), share[name],
        *(spread(rates[name, who], 2) for who in ("engine", "engine2", "5tswap", "rxonly")),
        ratio(name, "engine", "5tswap"), ratio(name, "engine", "rxonly"),
        ratio(name, "engine2", "engine")))
EOF
