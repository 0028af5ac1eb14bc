#!/usr/bin/env bash
# Checks what documents and describes the programs: the manual pages format without warnings,
# every option and command of tarnwick-cli --help is in its manual page and in both shell
# completions, the bash completion offers the commands, options and modes, the desktop entry
# and the AppStream metadata validate. A check whose tool is missing is skipped and said so.
#
#   docs_test.sh BUILD_DIR SOURCE_DIR
set -uo pipefail
build=${1:?usage: docs_test.sh BUILD_DIR SOURCE_DIR}
source_dir=${2:?usage: docs_test.sh BUILD_DIR SOURCE_DIR}
. "$source_dir/tests/package/common.sh"

skip()
{
    echo "skipped: $*"
}

pages=("$build/man/tarnwick-cli.1")
[ -f "$build/man/tarnwick.1" ] && pages+=("$build/man/tarnwick.1")
for page in "${pages[@]}"; do
    warnings=$(groff -man -ww -z "$page" 2>&1) || fail "groff failed on $page"
    [ -z "$warnings" ] || fail "groff warns on $page: $warnings"
    if command -v man >/dev/null; then
        warnings=$(LC_ALL=C.UTF-8 MANWIDTH=80 man --warnings -E UTF-8 -l "$page" 2>&1 >/dev/null)
        [ -z "$warnings" ] || fail "man warns on $page: $warnings"
    fi
done

# The words of the help: each command and each option, long or short.
help=$("$build/bin/tarnwick-cli" --help) || fail "tarnwick-cli --help failed"
commands=$(printf '%s\n' "$help" | sed -n 's/^  \([a-z]\+\) .*/\1/p' | sort -u)
options=$(printf '%s\n' "$help" | grep -o -- '\(^\|[[ ]\)--\?[a-z][a-z-]*' | tr -d '[ ' | sort -u)
[ -n "$commands" ] && [ -n "$options" ] || fail "could not read commands and options from --help"
man_text=$(MANWIDTH=200 man -l "$build/man/tarnwick-cli.1" 2>/dev/null)
bash_completion="$source_dir/completions/tarnwick-cli.bash"
zsh_completion="$source_dir/completions/tarnwick-cli.zsh"
for word in $commands; do
    grep -q -- "\b$word\b" <<<"$man_text" || fail "the manual page lacks the command $word"
    grep -q -- "\b$word\b" "$bash_completion" || fail "the bash completion lacks $word"
    grep -q -- "'$word:" "$zsh_completion" || fail "the zsh completion lacks $word"
done
for word in $options; do
    grep -q -- "$word\b" <<<"$man_text" || fail "the manual page lacks the option $word"
    grep -q -- "$word\b" "$bash_completion" || fail "the bash completion lacks $word"
    grep -q -- "$word\b" "$zsh_completion" || fail "the zsh completion lacks $word"
done

# Completing with bash: what the completion offers after each start of a command line.
if [ -f /usr/share/bash-completion/bash_completion ]; then
    # Each line: a command line typed so far, then what the completion offers, sorted.
    table=$(cat <<'TABLE'
tarnwick-cli |compact embed files index mcp prompt remove search stats train update watch
tarnwick-cli se|search
tarnwick-cli watch /tmp --j|--json
tarnwick-cli search /tmp q --mode |hybrid keyword regex semantic text
tarnwick-cli search /tmp q --mode=|hybrid keyword regex semantic text
tarnwick-cli prompt /tmp q --scope |all pinned top5
tarnwick-cli search /tmp q --weights n|none
tarnwick-cli train |add default profiles
tarnwick-cli index /tmp --ch|--chunk-size
tarnwick-cli search /tmp q --j|--json
tarnwick-cli --v|--version
TABLE
)
    # One shell loads the completion and answers every line.
    results=$(bash -c '
        . /usr/share/bash-completion/bash_completion
        . "$1"
        while IFS="|" read -r line expected; do
            COMP_LINE=$line
            COMP_POINT=${#COMP_LINE}
            read -r -a COMP_WORDS <<<"$COMP_LINE"
            [[ $COMP_LINE == *" " ]] && COMP_WORDS+=("")
            COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
            COMPREPLY=()
            _tarnwick_cli tarnwick-cli "${COMP_WORDS[COMP_CWORD]}" "${COMP_WORDS[COMP_CWORD-1]}"
            got=$(printf "%s\n" "${COMPREPLY[@]}" | sort | tr "\n" " ")
            [ "${got% }" = "$expected" ] || echo "bash completion of \"$line\": \"${got% }\", not \"$expected\""
        done <<<"$2"
    ' bash "$bash_completion" "$table" 2>&1)
    [ -z "$results" ] || fail "$results"
else
    skip "bash completion (bash-completion is not installed)"
fi
if command -v zsh >/dev/null; then
    zsh -n "$zsh_completion" || fail "the zsh completion does not parse"
else
    skip "zsh completion (zsh is not installed)"
fi

if [ -f "$build/bin/tarnwick" ]; then
    if command -v desktop-file-validate >/dev/null; then
        out=$(desktop-file-validate "$source_dir/desktop/org.tarnwick.Tarnwick.desktop" 2>&1) ||
            fail "desktop-file-validate: $out"
        grep -q "^Exec=tarnwick %F$" "$source_dir/desktop/org.tarnwick.Tarnwick.desktop" ||
            fail "the desktop entry does not start tarnwick with the chosen files"
    else
        skip "desktop entry (desktop-file-utils is not installed)"
    fi
    if command -v appstreamcli >/dev/null; then
        out=$(appstreamcli validate --no-net "$build/app/ui/org.tarnwick.Tarnwick.metainfo.xml" 2>&1) ||
            fail "appstreamcli validate: $out"
    else
        skip "AppStream metadata (appstream is not installed)"
    fi
    version=$("$build/bin/tarnwick" --version 2>&1) || fail "tarnwick --version failed"
    case $version in
        "Tarnwick "*" (engine "*")") ;;
        *) fail "tarnwick --version printed: $version" ;;
    esac
fi
finish
