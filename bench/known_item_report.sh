#!/usr/bin/env bash
# Every development set of the known-item benchmark, for each weights file, in one table.
#
#   bench/known_item_report.sh WEIGHTS...          (BUILD=build, SWEEP=1 adds the fusion rows)
#
# Runs build/bin/known_item_bench on the PostgreSQL manual (300 files), Go's sources (300
# files), the hand-written questions over the PostgreSQL manual (300 files) and the two sets of
# vocabulary-mismatch questions (PostgreSQL over every page, Go over 300 files), as
# bench/README.md runs them, and prints R@10 / MRR@10 per encoder and mode for each. The slice
# columns are the known-item sets' own mismatch slice, both corpora together (a handful of
# queries). WEIGHTS may be "random" for the untrained encoder. Set PG and GO to other folders to
# run elsewhere. Development data only: choices are made on these sets, never on test text.
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
build=${BUILD:-$here/build}
bench=$build/bin/known_item_bench
pg=${PG:-/usr/share/doc/postgresql-doc-15/html}
go=${GO:-/usr/share/go-1.19/src}
[ $# -ge 1 ] || { echo "usage: known_item_report.sh WEIGHTS... (\"random\": untrained)" >&2; exit 2; }
[ -x "$bench" ] || { echo "known_item_report: $bench is missing (make bench)" >&2; exit 1; }
for d in "$pg" "$go"; do
    [ -d "$d" ] || { echo "known_item_report: no folder $d (apt-get install postgresql-doc-15 golang-1.19-src)" >&2; exit 1; }
done
for w in "$@"; do
    [ "$w" = random ] || [ -r "$w" ] || { echo "known_item_report: cannot read $w" >&2; exit 1; }
done

scratch=$(mktemp -d "${TMPDIR:-/tmp}/tarnwick-known-item.XXXXXX")
trap 'rm -rf "$scratch"' EXIT
export OPENBLAS_NUM_THREADS=1
sweep=()
[ "${SWEEP:-0}" = 1 ] && sweep=(--sweep)

# name, folder and arguments of each set
sets=(pg go pgq pgmm gomm)
declare -A args=(
    [pg]="$pg"
    [go]="$go"
    [pgq]="$pg --files 300 --questions $here/bench/postgresql_questions.tsv"
    [pgmm]="$pg --questions $here/bench/postgresql_mismatch_questions.tsv"
    [gomm]="$go --files 300 --questions $here/bench/go_mismatch_questions.tsv"
)
i=0
for w in "$@"; do
    i=$((i + 1))
    weights=()
    [ "$w" = random ] || weights=(--weights "$w")
    for s in "${sets[@]}"; do
        echo "known_item_report: $w on $s" >&2
        # shellcheck disable=SC2086 # the arguments are split on purpose
        if ! "$bench" ${args[$s]} "${weights[@]}" "${sweep[@]}" >"$scratch/$i.$s" 2>"$scratch/err"; then
            echo "known_item_report: known_item_bench failed on $s with $w:" >&2
            tail -3 "$scratch/err" >&2
            exit 1
        fi
    done
done

# The rows "| mode | R@10 | MRR@10 | slice R@10 | slice MRR@10 | ..." of each run, by encoder and
# mode; the slice of both known-item sets is pooled by counting its queries.
echo "| encoder | mode | PostgreSQL 300 | Go 300 | known-item slice | PostgreSQL questions | PostgreSQL mismatch | Go mismatch |"
echo "|---|---|---:|---:|---:|---:|---:|---:|"
i=0
for w in "$@"; do
    i=$((i + 1))
    awk -F'|' -v enc="$w" -v sets="${sets[*]}" -v dir="$scratch/$i" '
        function trim(s) { gsub(/^ +| +$/, "", s); return s }
        BEGIN {
            n = split(sets, name, " ")
            for (k = 1; k <= n; k++) {
                f = dir "." name[k]
                while ((getline line < f) > 0) {
                    if (line ~ /queries, [0-9]+ of them/) {
                        m = line; sub(/ of them.*/, "", m); sub(/.*queries, /, "", m); slice[name[k]] = m + 0
                    }
                    if (line !~ /^\| /) continue
                    split(line, c, "|")
                    if (trim(c[3]) !~ /^[0-9.]+$/) continue
                    mode = trim(c[2])
                    if (!(mode in seen)) { seen[mode] = 1; order[++modes] = mode }
                    cell[mode, name[k]] = sprintf("%.3f / %.3f", trim(c[3]), trim(c[4]))
                    if (c[5] ~ /[0-9]/) { hit[mode, name[k]] = trim(c[5]); rr[mode, name[k]] = trim(c[6]) }
                }
                close(f)
            }
            for (j = 1; j <= modes; j++) {
                mode = order[j]
                q = slice["pg"] + slice["go"]
                h = 0; r = 0
                if (q > 0) {
                    h = (hit[mode, "pg"] * slice["pg"] + hit[mode, "go"] * slice["go"]) / q
                    r = (rr[mode, "pg"] * slice["pg"] + rr[mode, "go"] * slice["go"]) / q
                }
                pooled = q > 0 ? sprintf("%.3f / %.3f (%d)", h, r, q) : "-"
                printf "| %s | %s | %s | %s | %s | %s | %s | %s |\n", enc, mode, cell[mode, "pg"],
                       cell[mode, "go"], pooled, cell[mode, "pgq"], cell[mode, "pgmm"], cell[mode, "gomm"]
            }
        }'
done
