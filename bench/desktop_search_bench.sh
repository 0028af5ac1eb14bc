#!/usr/bin/env bash
# How long the desktop search provider takes to answer GNOME Shell's GetInitialResultSet and
# KRunner's Match on a real folder, next to a D-Bus round trip to the same provider (Ping), all
# measured in one run on a private session bus.
#
#   bench/desktop_search_bench.sh [BUILD_DIR] [FOLDER] [QUERIES]
#
# FOLDER (default: the PostgreSQL manual, Debian's postgresql-doc-15) is copied into a scratch
# folder and indexed with tarnwick-cli; the application's settings name the copy as its only tab.
# QUERIES is a file of queries, one per line, tab-separated extras ignored (default:
# bench/postgresql_questions.tsv). Every time is the wall time of one gdbus call, so each holds
# the start of a gdbus process; Ping shows what that costs alone. The first call also starts
# the provider and opens the index: it is printed apart.
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$here/build}
folder=${2:-/usr/share/doc/postgresql-doc-15/html}
queries=${3:-$here/bench/postgresql_questions.tsv}
for tool in tarnwick-cli tarnwick-search-provider; do
    [ -x "$build/bin/$tool" ] || { echo "desktop_search_bench: $build/bin/$tool is missing" >&2; exit 1; }
done
[ -d "$folder" ] || { echo "desktop_search_bench: no folder $folder" >&2; exit 1; }

scratch=$(mktemp -d "${TMPDIR:-/tmp}/tarnwick-dbus-bench.XXXXXX")
trap 'rm -rf "$scratch"' EXIT
mkdir -p "$scratch/home/.config/Tarnwick" "$scratch/home/.local/share/dbus-1/services" \
    "$scratch/home/runtime"
chmod 700 "$scratch/home/runtime"
cp -r "$folder" "$scratch/folder"
env_home=(env HOME="$scratch/home" XDG_CONFIG_HOME="$scratch/home/.config"
    XDG_DATA_HOME="$scratch/home/.local/share" XDG_CACHE_HOME="$scratch/home/.cache"
    XDG_RUNTIME_DIR="$scratch/home/runtime" QT_QPA_PLATFORM=offscreen)
"${env_home[@]}" "$build/bin/tarnwick-cli" index "$scratch/folder" >/dev/null 2>&1
printf '[General]\nsavedTabPaths=%s\n' "$scratch/folder" >"$scratch/home/.config/Tarnwick/Tarnwick.conf"
printf '[D-BUS Service]\nName=org.tarnwick.Tarnwick.SearchProvider\nExec=%s\n' \
    "$build/bin/tarnwick-search-provider" \
    >"$scratch/home/.local/share/dbus-1/services/org.tarnwick.Tarnwick.SearchProvider.service"
grep -v '^#' "$queries" | cut -f1 | sed '/^$/d' | head -40 >"$scratch/queries"

cat >"$scratch/run.sh" <<'EOF'
set -u
dest="--dest org.tarnwick.Tarnwick.SearchProvider"
gnome="$dest --object-path /org/tarnwick/Tarnwick/SearchProvider"
runner="$dest --object-path /org/tarnwick/Tarnwick/Runner"
ms() { local a b; a=$(date +%s%N); "$@" >/dev/null 2>&1; b=$(date +%s%N); echo $(((b - a) / 1000000)); }
terms() { printf "'%s'," $1 | sed 's/,$//'; }
first=$(ms gdbus call --session $gnome --method org.gnome.Shell.SearchProvider2.GetInitialResultSet "['warmup']")
echo "first $first"
while read -r q; do
    echo "ping $(ms gdbus call --session $gnome --method org.freedesktop.DBus.Peer.Ping)"
    echo "gnome $(ms gdbus call --session $gnome --method org.gnome.Shell.SearchProvider2.GetInitialResultSet "[$(terms "$q")]")"
    echo "krunner $(ms gdbus call --session $runner --method org.kde.krunner1.Match "$q")"
done <"$SCRATCH/queries"
EOF
"${env_home[@]}" SCRATCH="$scratch" dbus-run-session -- bash "$scratch/run.sh" >"$scratch/times" 2>&1

chunks=$("${env_home[@]}" "$build/bin/tarnwick-cli" stats "$scratch/folder" 2>/dev/null |
    sed -n 's/.*chunks: *\([0-9]*\).*/\1/p' | head -1)
stat_line()
{
    sort -n | awk -v name="$1" '{ v[NR] = $1 } END {
        if (NR == 0) { printf "| %s | 0 | | |\n", name; exit }
        printf "| %s | %d | %d | %d |\n", name, NR, v[int((NR + 1) / 2)], v[NR] }'
}
echo "desktop search on $folder (${chunks:-?} chunks), $(wc -l <"$scratch/queries") queries," \
    "load average $(cut -d' ' -f1-3 /proc/loadavg)"
echo
echo "| call | calls | median ms | worst ms |"
echo "|---|---:|---:|---:|"
grep '^first ' "$scratch/times" | cut -d' ' -f2 | stat_line "first call (starts the provider, opens the index)"
grep '^gnome ' "$scratch/times" | cut -d' ' -f2 | stat_line "GetInitialResultSet"
grep '^krunner ' "$scratch/times" | cut -d' ' -f2 | stat_line "Match"
grep '^ping ' "$scratch/times" | cut -d' ' -f2 | stat_line "reference: Ping, a round trip"
