#!/usr/bin/env bash
# Installs what is missing, builds the fuzzers, and runs each for a time on all cores.
# Usage: scripts/fuzz.sh [plain|address|guided] [--keep] [SECONDS] [FUZZER]...
#   plain    (default) mutations in an optimised build: as many runs as there can be
#   address  the same under AddressSanitizer and UndefinedBehaviorSanitizer
#   guided   libFuzzer under the same: coverage says which mutations are worth more
#   --keep   guided only: what found new code joins fuzz/corpus, and the corpus is made smallest
# SECONDS are for each fuzzer, 60 unless given; without a FUZZER all of them run.
# LYR_FUZZ_SEED=N repeats a campaign, LYR_FUZZ_JOBS=N sets how many of a fuzzer run at once. Inputs
# that fail are left in build-fuzz-MODE/failing, and the exit status is 1.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/packages.sh

mode=plain
keep=
seconds=60
fuzzers=()
for argument in "$@"; do
    case "$argument" in
    plain | address | guided) mode=$argument ;;
    --keep) keep=yes ;;
    *[!0-9]*) fuzzers+=("$argument") ;;
    *) seconds=$argument ;;
    esac
done
known=$(sed -n 's/^add_fuzzer(\([a-z_]*\).*/\1/p' fuzz/CMakeLists.txt)
for fuzzer in "${fuzzers[@]}"; do
    grep -qx "$fuzzer" <<<"$known" ||
        { echo "fuzz.sh: unknown fuzzer '$fuzzer'; there are:" $known >&2; exit 2; }
done
[ ${#fuzzers[@]} -gt 0 ] || mapfile -t fuzzers <<<"$known"
seed=${LYR_FUZZ_SEED:-$(date +%s)}
jobs=${LYR_FUZZ_JOBS:-$(nproc)}
build=build-fuzz-$mode
failing=$build/failing

build_fuzzers() {
    local options=(-DLYR_BUILD_TESTS=OFF -DLYR_BUILD_BENCH=OFF) suffix=
    case "$mode" in
    plain) options+=(-DCMAKE_BUILD_TYPE=Release) ;;
    address) options+=(-DLYR_SANITIZE=address,undefined) ;;
    guided)
        ensure_packages "${fuzz_packages[@]}"
        options+=(-DLYR_SANITIZE=address,undefined -DLYR_LIBFUZZER=ON
            -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++)
        suffix=_libfuzzer
        ;;
    esac
    configure_tree "$build" "${options[@]}"
    cmake --build "$build" --target "${fuzzers[@]}" ${suffix:+"${fuzzers[@]/%/$suffix}"}
}

# Runs one of a fuzzer's jobs: run_job FUZZER NUMBER; what it says goes to its log.
run_job() {
    local fuzzer=$1 number=$2
    local name=$failing/$fuzzer-$seed-$number
    if [ "$mode" = guided ]; then
        "$build/bin/${fuzzer}_libfuzzer" -seed=$(((seed + number) % 2147483647)) \
            -max_total_time="$seconds" -max_len=4096 -timeout=60 -print_final_stats=1 \
            -artifact_prefix="$name-" "$build/corpus/$fuzzer" "fuzz/corpus/$fuzzer"
    else
        "$build/bin/$fuzzer" --seconds "$seconds" --seed $((seed + number)) \
            --corpus "fuzz/corpus/$fuzzer" --failing "$name"
    fi
}

# Runs that the logs of a fuzzer's jobs tell of.
count_runs() {
    sed -n -e 's/.* \([0-9]*\) mutations ran.*/\1/p' \
        -e 's/^stat::number_of_executed_units: *//p' "$@" | awk '{ sum += $1 } END { print sum + 0 }'
}

run_fuzzer() {
    local fuzzer=$1 number findings=0 pids=() logs=()
    if [ "$mode" = guided ]; then
        mkdir -p "$build/corpus/$fuzzer"
    fi
    local begin=$SECONDS
    for ((number = 0; number < jobs; number++)); do
        logs+=("$build/$fuzzer-$number.log")
        run_job "$fuzzer" "$number" >"${logs[-1]}" 2>&1 &
        pids+=($!)
    done
    for number in "${!pids[@]}"; do
        wait "${pids[$number]}" || {
            findings=$((findings + 1))
            tail -n 40 "${logs[$number]}" >&2
        }
    done
    local runs took=$((SECONDS - begin))
    runs=$(count_runs "${logs[@]}")
    printf '%-16s %14d runs %10d a second %3d findings\n' \
        "$fuzzer" "$runs" $((runs / (took > 0 ? took : 1))) "$findings"
    [ "$findings" -eq 0 ]
}

# Replaces the kept inputs, whose names are hashes, by the fewest that reach what all of them and
# the campaign's do. Inputs with names stay.
keep_corpus() {
    local fuzzer=$1 corpus=fuzz/corpus/$1 smallest
    smallest=$(mktemp -d)
    "$build/bin/${fuzzer}_libfuzzer" -set_cover_merge=1 -use_counters=0 -max_len=1024 "$smallest" \
        "$corpus" "$build/corpus/$fuzzer" >"$build/$fuzzer-keep.log" 2>&1
    find "$corpus" -type f -regextype posix-extended -regex '.*/[0-9a-f]{40}' -delete
    mv "$smallest"/* "$corpus"
    rmdir "$smallest"
    printf '%-16s %14d inputs kept, %d bytes\n' "$fuzzer" "$(find "$corpus" -type f | wc -l)" \
        "$(cat "$corpus"/* | wc -c)"
}

ensure_packages "${build_packages[@]}"
echo "== fuzzers: $mode, ${seconds} s each, $jobs at once, seed $seed, $(git describe --always --dirty) =="
build_fuzzers >"$build.log" || { cat "$build.log" >&2; exit 1; }
mkdir -p "$failing"
status=0
for fuzzer in "${fuzzers[@]}"; do
    run_fuzzer "$fuzzer" || status=1
    [ -z "$keep" ] || [ "$mode" != guided ] || keep_corpus "$fuzzer"
done
exit $status
