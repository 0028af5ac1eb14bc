#!/usr/bin/env bash
# The desktop search providers on a private session bus, called as GNOME Shell and KRunner call
# them: the bus starts the provider from a .service file, both answer from the index of the
# folder open in the application, opening a result starts the editor at its line, and "more
# results" starts the application with the query.
#
#   desktop_search_test.sh BUILD_DIR SOURCE_DIR
set -uo pipefail
build=${1:?usage: desktop_search_test.sh BUILD_DIR SOURCE_DIR}
source_dir=${2:?usage: desktop_search_test.sh BUILD_DIR SOURCE_DIR}
. "$source_dir/tests/package/common.sh"

folder="$scratch/folder"
make_folder "$folder"
run_home "$build/bin/tarnwick-cli" index "$folder" >/dev/null 2>&1 || fail "tarnwick-cli index failed"

# The application's settings: the folder is an open tab, and the editor is a program that
# records what it was asked to open. "tarnwick" on PATH records how the application was started.
mkdir -p "$scratch/home/.config/Tarnwick" "$scratch/home/.local/share/dbus-1/services" "$scratch/bin"
cat >"$scratch/home/.config/Tarnwick/Tarnwick.conf" <<EOF
[General]
savedTabPaths=$folder
openTextFilesWith=custom
editorCommand=$scratch/bin/editor --line {line} {file}
EOF
printf '#!/bin/sh\nprintf "%%s\\n" "$@" >"%s/opened"\n' "$scratch" >"$scratch/bin/editor"
printf '#!/bin/sh\nprintf "%%s\\n" "$@" >>"%s/launched"\n' "$scratch" >"$scratch/bin/tarnwick"
chmod +x "$scratch/bin/editor" "$scratch/bin/tarnwick"
cat >"$scratch/home/.local/share/dbus-1/services/org.tarnwick.Tarnwick.SearchProvider.service" <<EOF
[D-BUS Service]
Name=org.tarnwick.Tarnwick.SearchProvider
Exec=$build/bin/tarnwick-search-provider
EOF

gnome="--dest org.tarnwick.Tarnwick.SearchProvider --object-path /org/tarnwick/Tarnwick/SearchProvider"
gnome_if=org.gnome.Shell.SearchProvider2
runner="--dest org.tarnwick.Tarnwick.SearchProvider --object-path /org/tarnwick/Tarnwick/Runner"
# Waits up to 10 s for a file that a detached program writes.
script=$(cat <<EOF
set -u
wait_for() { for _ in \$(seq 100); do [ -s "\$1" ] && return 0; sleep 0.1; done; return 1; }
echo "initial: \$(gdbus call --session $gnome --method $gnome_if.GetInitialResultSet "['regatta']")"
echo "short: \$(gdbus call --session $gnome --method $gnome_if.GetInitialResultSet "['re']")"
id=\$(gdbus call --session $gnome --method $gnome_if.GetInitialResultSet "['spring', 'regatta']" |
     sed -n "s/^(\['\([^']*\)'.*/\1/p")
echo "id: \$id"
echo "metas: \$(gdbus call --session $gnome --method $gnome_if.GetResultMetas "['\$id']")"
gdbus call --session $gnome --method $gnome_if.ActivateResult "\$id" "['regatta']" 0 >/dev/null
wait_for "$scratch/opened" || echo "editor never started"
gdbus call --session $gnome --method $gnome_if.ActivateResult "3:/etc/passwd" "['x']" 0 >/dev/null
gdbus call --session $gnome --method $gnome_if.LaunchSearch "['spring', 'regatta']" 0 >/dev/null
wait_for "$scratch/launched" || echo "application never started"
echo "match: \$(gdbus call --session $runner --method org.kde.krunner1.Match 'sourdough baker')"
gdbus call --session $runner --method org.kde.krunner1.Run 'more:sourdough baker' '' >/dev/null
for _ in \$(seq 100); do [ "\$(wc -l <"$scratch/launched")" -ge 4 ] && break; sleep 0.1; done
EOF
)
# Into a file: the provider, started by the bus, would hold a pipe open after the session.
run_home env PATH="$scratch/bin:$PATH" dbus-run-session -- bash -c "$script" >"$scratch/out" 2>&1
out=$(cat "$scratch/out")
echo "$out"

line_of() { printf '%s\n' "$out" | sed -n "s/^$1: //p"; }
# The file that holds the word comes first (hybrid may add the other by meaning after it).
case $(line_of initial) in
    "(['"[0-9]*":$folder/notes/harbour.txt'"*) ;;
    *) fail "GetInitialResultSet did not rank harbour.txt first: $(line_of initial)" ;;
esac
[ "$(line_of short)" = "(@as [],)" ] || fail "a two-letter query was answered: $(line_of short)"
id=$(line_of id)
[[ $id =~ ^[0-9]+:$folder/notes/harbour.txt$ ]] || fail "unexpected result id: $id"
case $(line_of metas) in
    *"'description': <'The harbour master"*"'name': <'harbour.txt:"*) ;;
    *) fail "GetResultMetas lacks the name or the snippet: $(line_of metas)" ;;
esac
# The editor got the line and the file, and nothing for the path outside the open folders.
expected_opened=$(printf -- '--line\n%s\n%s' "${id%%:*}" "$folder/notes/harbour.txt")
[ "$(cat "$scratch/opened" 2>/dev/null)" = "$expected_opened" ] ||
    fail "the editor was started with: $(cat "$scratch/opened" 2>/dev/null)"
expected_launched=$(printf -- '--query\nspring regatta\n--query\nsourdough baker')
[ "$(cat "$scratch/launched" 2>/dev/null)" = "$expected_launched" ] ||
    fail "the application was started with: $(cat "$scratch/launched" 2>/dev/null)"
case $(line_of match) in
    "([('"[0-9]*":$folder/bread.md'"*"'Search Tarnwick for"*) ;;
    *) fail "KRunner's Match lacks bread.md or the more-results match: $(line_of match)" ;;
esac
finish
