# What the package tests share: a scratch directory removed at exit, a home of its own for the
# programs (so they never read or write the user's settings or ~/.tarnwick), a small folder to
# index, and checks that say what failed.

scratch=$(mktemp -d "${TMPDIR:-/tmp}/tarnwick-package.XXXXXX")
trap 'rm -rf "$scratch"' EXIT
failures=0

fail()
{
    echo "FAIL: $*" >&2
    failures=$((failures + 1))
}

expect_file()
{
    [ -f "$1" ] || fail "missing $1"
}

# Runs the programs of the tree under root with a home inside the scratch directory.
run_home()
{
    HOME="$scratch/home" XDG_CONFIG_HOME="$scratch/home/.config" \
        XDG_DATA_HOME="$scratch/home/.local/share" XDG_CACHE_HOME="$scratch/home/.cache" \
        XDG_RUNTIME_DIR="$scratch/home/runtime" QT_QPA_PLATFORM=offscreen "$@"
}

# A folder with two text files and a word that only one of them holds.
make_folder()
{
    mkdir -p "$1/notes" "$scratch/home/runtime"
    chmod 700 "$scratch/home/runtime"
    printf 'The harbour master inspects every boat before the spring regatta.\n%.0s' \
        1 2 3 4 5 6 >"$1/notes/harbour.txt"
    printf 'Sourdough needs a warm kitchen and a patient baker overnight.\n%.0s' \
        1 2 3 4 5 6 >"$1/bread.md"
}

# tarnwick-cli of an installed tree indexes folder and finds the one file that holds a word.
check_cli_indexes_and_searches()
{
    local cli=$1 folder=$2 out
    if ! out=$(run_home "$cli" index "$folder" 2>&1); then
        fail "tarnwick-cli index: $out"
        return
    fi
    out=$(run_home "$cli" search "$folder" regatta --mode text --json 2>&1) ||
        fail "tarnwick-cli search: $out"
    case $out in
        *harbour.txt*) ;;
        *) fail "tarnwick-cli search did not find harbour.txt: $out" ;;
    esac
    case $out in
        *bread.md*) fail "tarnwick-cli search found bread.md for a word it lacks: $out" ;;
    esac
}

# The installed application starts without a display, opens the folder named on its command line
# as a tab (saved in its settings) and quits.
check_app_starts()
{
    local app=$1 folder=$2 out
    if ! out=$(run_home timeout 60 "$app" --quit-after-start "$folder" 2>&1); then
        fail "tarnwick did not start and quit: $out"
        return
    fi
    grep -q "savedTabPaths=.*$folder" "$scratch/home/.config/Tarnwick/Tarnwick.conf" 2>/dev/null ||
        fail "tarnwick did not open $folder as a tab"
    # What the file managers' "Search in Tarnwick" starts.
    out=$(run_home timeout 60 "$app" --search --quit-after-start "$folder" 2>&1) ||
        fail "tarnwick --search did not start and quit: $out"
}

finish()
{
    if [ "$failures" -ne 0 ]; then
        echo "$failures check(s) failed" >&2
        exit 1
    fi
    echo "all checks passed"
}
