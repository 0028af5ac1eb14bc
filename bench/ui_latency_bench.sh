#!/usr/bin/env bash
# How long the application takes to act on a key while it indexes a large folder, next to the
# same key once the folder is indexed, measured in one run under Xvfb with a window manager.
#
#   bench/ui_latency_bench.sh [BUILD_DIR] [FOLDER] [ROUNDS]
#
# FOLDER (default: Go's standard library sources, Debian's golang-1.19-src) is copied into a
# scratch folder and opened in the application, which starts indexing it. Each round presses
# Ctrl+I, which opens the folder's file list (the window that lists every file with its state),
# and times the key until the window is mapped, then closes it with Alt+F4 and waits until it is
# gone. ROUNDS (default 10) rounds run while the first indexing runs; then the application is
# closed, `tarnwick-cli update` finishes the index, the application is started again on it, and
# the same rounds give the reference. Every time holds xdotool's own start (about 5 ms).
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$here/build}
folder=${2:-/usr/share/go-1.19/src}
rounds=${3:-10}
for tool in tarnwick tarnwick-cli; do
    [ -x "$build/bin/$tool" ] || { echo "ui_latency_bench: $build/bin/$tool is missing" >&2; exit 1; }
done
for tool in Xvfb openbox xdotool; do
    command -v "$tool" >/dev/null || { echo "ui_latency_bench: $tool is missing" >&2; exit 1; }
done
[ -d "$folder" ] || { echo "ui_latency_bench: no folder $folder" >&2; exit 1; }

scratch=$(mktemp -d "${TMPDIR:-/tmp}/tarnwick-ui-bench.XXXXXX")
pids=()
cleanup()
{
    for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
    wait 2>/dev/null || true
    rm -rf "$scratch"
}
trap cleanup EXIT
trap "exit 1" INT TERM
mkdir -p "$scratch/home/runtime"
chmod 700 "$scratch/home/runtime"
cp -r "$folder" "$scratch/folder"
export HOME="$scratch/home" XDG_CONFIG_HOME="$scratch/home/.config" \
    XDG_DATA_HOME="$scratch/home/.local/share" XDG_CACHE_HOME="$scratch/home/.cache" \
    XDG_RUNTIME_DIR="$scratch/home/runtime"

display=:$((90 + RANDOM % 100))
Xvfb "$display" -screen 0 1280x1024x24 >/dev/null 2>&1 &
pids+=($!)
export DISPLAY=$display
sleep 1
openbox >/dev/null 2>&1 &
pids+=($!)
sleep 1

now_ms() { echo $(($(date +%s%N) / 1000000)); }
# Starts the application on the folder and waits for its main window.
start_app()
{
    "$build/bin/tarnwick" "$scratch/folder" >>"$scratch/app.log" 2>&1 &
    app=$!
    pids+=("$app")
    main=$(timeout 60 xdotool search --sync --onlyvisible --name "folder .* Tarnwick" | head -1)
    [ -n "$main" ] || { echo "ui_latency_bench: the main window never showed" >&2; exit 1; }
    sleep 2
}
# ROUNDS times: Ctrl+I until the file list is mapped, in ms, one per line.
rounds_of()
{
    local t0 t1 w
    for _ in $(seq "$rounds"); do
        xdotool windowactivate --sync "$main" >/dev/null 2>&1 || true
        t0=$(now_ms)
        xdotool key ctrl+i
        w=$(timeout 60 xdotool search --sync --onlyvisible --name "^File" | head -1)
        t1=$(now_ms)
        [ -n "$w" ] || { echo "ui_latency_bench: the file list never showed" >&2; exit 1; }
        echo $((t1 - t0))
        xdotool windowactivate --sync "$w" >/dev/null 2>&1 || true
        xdotool key alt+F4
        for _ in $(seq 600); do
            xdotool search --onlyvisible --name "^File" >/dev/null 2>&1 || break
            sleep 0.05
        done
        sleep 0.5
    done
}
stat_line()
{
    sort -n | awk -v name="$1" '{ v[NR] = $1 } END {
        printf "| %s | %d | %d | %d |\n", name, NR, v[int((NR + 1) / 2)], v[NR] }'
}

start_app
rounds_of >"$scratch/indexing"
chunks_then=$("$build/bin/tarnwick-cli" stats "$scratch/folder" 2>/dev/null |
    sed -n 's/^chunks: *//p' || true)
kill "$app" 2>/dev/null || true
wait "$app" 2>/dev/null || true
"$build/bin/tarnwick-cli" update "$scratch/folder" >"$scratch/update.log" 2>&1 ||
    echo "ui_latency_bench: tarnwick-cli update: $(tail -1 "$scratch/update.log")" >&2
chunks_all=$("$build/bin/tarnwick-cli" stats "$scratch/folder" 2>/dev/null | sed -n 's/^chunks: *//p')
start_app
rounds_of >"$scratch/idle"
kill "$app" 2>/dev/null || true

echo "ui_latency_bench on $folder: $(find "$scratch/folder" -type f -not -path '*/.tarnwick/*' | wc -l)" \
    "files, ${chunks_all:-?} chunks when indexed (${chunks_then:-?} after the indexing rounds);" \
    "load average $(cut -d' ' -f1-3 /proc/loadavg)"
echo
echo "| Ctrl+I until the file list shows | rounds | median ms | worst ms |"
echo "|---|---:|---:|---:|"
stat_line "while the first indexing runs" <"$scratch/indexing"
stat_line "reference: the folder indexed, nothing running" <"$scratch/idle"
