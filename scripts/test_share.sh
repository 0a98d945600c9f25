#!/usr/bin/env bash
# Prints how much of the code is tests, in percent of all lines of code.
# Usage: scripts/test_share.sh [--check]   (--check: exit 1 above 33.3)
#
# Counted are the C and C++ files (.c .cpp .h) that git tracks, or would: tests are those in tests/
# (the stress program among them) and fuzz/, other code those in src/ and bench/; models, scripts and
# documents are neither. A line counts unless it is blank or holds nothing but comment: a // line,
# or a /* */ comment with nothing beside it. A comment behind code does not make the line another
# one, and what stands in a string is code.
set -euo pipefail
cd "$(dirname "$0")/.."
limit=33.3

lines() {
    git ls-files -z --cached --others --exclude-standard -- "$@" | xargs -0 awk '
        FNR == 1 { inside = 0 }
        {
            code = ""
            text = $0
            gsub(/"([^"\\]|\\.)*"/, "s", text)
            while (text != "") {
                if (inside) {
                    end = index(text, "*/")
                    inside = end == 0
                    text = end == 0 ? "" : substr(text, end + 2)
                    continue
                }
                begin = match(text, /\/\/|\/\*/)
                if (begin == 0) {
                    code = code text
                    break
                }
                code = code substr(text, 1, begin - 1)
                inside = substr(text, begin, 2) == "/*"
                text = inside ? substr(text, begin + 2) : ""
            }
            count += code ~ /[^[:space:]]/
        }
        END { print count }'
}

tests=$(lines 'tests/*.c' 'tests/*.cpp' 'tests/*.h' 'fuzz/*.c' 'fuzz/*.cpp' 'fuzz/*.h')
sources=$(lines 'src/*.c' 'src/*.cpp' 'src/*.h')
bench=$(lines 'bench/*.c' 'bench/*.cpp' 'bench/*.h')
awk -v tests="$tests" -v sources="$sources" -v bench="$bench" -v limit="$limit" -v check="${1:-}" 'BEGIN {
    share = 100 * tests / (tests + sources + bench)
    printf "tests %d, sources %d, benchmarks %d: %.1f %% tests\n", tests, sources, bench, share
    if (check == "--check" && share > limit) {
        printf "test_share.sh: more than %s %%\n", limit > "/dev/stderr"
        exit 1
    }
}'
