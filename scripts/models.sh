#!/usr/bin/env bash
# Installs what is missing, and checks the models: each right variant has to be free of errors in all
# of its states, each wrong one has to fail in the way named here.
# Usage: scripts/models.sh
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/packages.sh
ensure_packages "${model_packages[@]}"

longest=900    # seconds for a check
memory=3000    # MB
depth=3000000  # steps
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# check MODEL NAME safety|progress ERROR [DEFINE...]: ERROR is what pan is to say of the first error, or
# "none". Safety: no assertion fails, and nobody waits for ever because everybody does. Progress:
# under weak fairness, no endless run in which nobody gets inside.
check() {
    local model=$1 name=$2 kind=$3 expected=$4
    shift 4
    local compile=(-DSAFETY) run=()
    [ "$kind" = safety ] || { compile=(-DNP -DNFAIR=3); run=(-l -f); }
    (cd "$work" && spin -a "${@/#/-D}" "$OLDPWD/models/$model.pml" >/dev/null &&
        gcc -O2 -w -DCOLLAPSE -DMEMLIM="$memory" "${compile[@]}" -o pan pan.c)
    (cd "$work" && timeout "$longest" ./pan "${run[@]}" -m"$depth") >"$work/out" || true

    local found whole=yes
    found=$(sed -n 's/^pan:1: \(.*\) (at depth.*/\1/p' "$work/out")
    grep -q 'Search not completed\|search depth too small\|MEMLIM bound' "$work/out" && whole=no
    grep -q 'errors: ' "$work/out" || whole=no
    printf '%-36s %-9s %10s %9s %7s  %s\n' "$name" "$kind" \
        "$(sed -n 's/^ *\([0-9.e+]*\) states, stored.*/\1/p' "$work/out")" \
        "$(sed -n 's/.*depth reached \([0-9]*\).*/\1/p' "$work/out")" \
        "$(sed -n 's/.*elapsed time \([0-9.e+]*\).*/\1/p' "$work/out")" "${found:-no error}"
    if [ "${found:-none}" != "$expected" ] || { [ "$expected" = none ] && [ "$whole" = no ]; }; then
        tail -30 "$work/out" >&2
        echo "models.sh: '$name' was expected to end with: $expected" >&2
        exit 1
    fi
}

printf '%-36s %-9s %10s %9s %7s  %s\n' variant check states depth seconds found
check visitors "the locker" safety none
check visitors "the locker" progress none
check tables "tables" safety none
check tables "tables, a packet thread" progress none NUM_MARKED=1
check tables "tables, locks before it looks" safety none LOCK_BEFORE_LOOK

together='assertion violated ((writersInside==1)&&(readersInside==0))'
lost='assertion violated (word==owed)'
freed='assertion violated allocated[seen]'
check visitors "wrong: no barrier" safety "$together" WRONG_NO_BARRIER
check visitors "wrong: marks not awaited" safety "$together" WRONG_MARKS_NOT_AWAITED
check visitors "wrong: reader waits counted" safety "invalid end state" WRONG_READER_WAITS_COUNTED
check visitors "wrong: writer bids at once" progress "non-progress cycle" WRONG_WRITER_BIDS_AT_ONCE
check tables "wrong: making writes 0" safety "$lost" WRONG_CREATION_WRITES_WORD
check tables "wrong: that, and locks before looks" safety "$lost" \
    WRONG_CREATION_WRITES_WORD LOCK_BEFORE_LOOK
check tables "wrong: release without the lock" safety "$freed" WRONG_RELEASE_WITHOUT_LOCK
check tables "wrong: no second look" safety "$freed" WRONG_NO_SECOND_LOOK
