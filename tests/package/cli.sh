#!/usr/bin/env bash
# The programs' command lines against their documents, without a package:
# every program answers --version (the project's version) and --help with no
# display; each man page lists exactly the options of its program's --help;
# the bash completion offers exactly widmo-analyze's options and completes
# values and audio files.
#   cli.sh VERSION MAN_DIR COMPLETION_FILE EXECUTABLE...
set -u
version=$1 man_dir=$2 completion=$3
shift 3
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
# shellcheck source=options.sh
source "$here/options.sh"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failures=0
fail() { echo "cli: $*"; failures=$((failures + 1)); }

for exe in "$@"; do
    name=$(basename "$exe")
    # No display at all: the answer must come before Qt looks for one.
    out=$(env -u DISPLAY -u WAYLAND_DISPLAY -u QT_QPA_PLATFORM "$exe" --version 2>&1)
    status=$?
    [ "$status" -eq 0 ] && [ "$out" = "$name $version" ] ||
        fail "$name --version gave '$out' (status $status), wanted '$name $version'"
    env -u DISPLAY -u WAYLAND_DISPLAY -u QT_QPA_PLATFORM "$exe" --help >"$work/$name.help" 2>&1 ||
        fail "$name --help failed"
    help_options <"$work/$name.help" >"$work/$name.help.options"
    [ -s "$work/$name.help.options" ] || fail "$name --help lists no options"

    page="$man_dir/$name.1"
    [ -f "$page" ] || { fail "no man page $page"; continue; }
    man_options <"$page" >"$work/$name.man.options"
    diff -u --label "$name --help" --label "$name.1" "$work/$name.help.options" \
        "$work/$name.man.options" >"$work/diff" ||
        fail "$name.1 and --help list different options:$(printf '\n%s' "$(cat "$work/diff")")"
    # groff's warnings are what lintian reports as manpage errors.
    warnings=$(LC_ALL=C.UTF-8 MANROFFSEQ='' MANWIDTH=80 man --warnings -E UTF-8 -l "$page" 2>&1 >/dev/null)
    [ -z "$warnings" ] || fail "$name.1 renders with warnings: $warnings"
done

# The completion against widmo-analyze's --help.
if [ -f "$work/widmo-analyze.help.options" ]; then
    completion_options <"$completion" >"$work/completion.options"
    diff -u --label "widmo-analyze --help" --label completion "$work/widmo-analyze.help.options" \
        "$work/completion.options" >"$work/diff" ||
        fail "the completion and --help list different options:$(printf '\n%s' "$(cat "$work/diff")")"
fi

# The completion at work, through bash-completion as an interactive shell loads it.
if [ -f /usr/share/bash-completion/bash_completion ]; then
    mkdir -p "$work/files/sub" && touch "$work/files/a.wav" "$work/files/b.FLAC" "$work/files/notes.txt"
    got=$(cd "$work/files" && bash --norc --noprofile -c '
        source /usr/share/bash-completion/bash_completion
        source "$1"
        complete_line() { # the words of a command line, the last being completed
            COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); COMP_LINE="$*"; COMP_POINT=${#COMP_LINE}
            COMPREPLY=(); _widmo_analyze widmo-analyze "${COMP_WORDS[-1]}" "${COMP_WORDS[-2]}"
            printf "%s\n" "${COMPREPLY[@]}" | LC_ALL=C sort | paste -sd " "
        }
        complete_line widmo-analyze --window ""
        complete_line widmo-analyze --window=h
        complete_line widmo-analyze --sp
        complete_line widmo-analyze --summary ""
        complete_line widmo-analyze -o ""
        complete_line widmo-analyze --bands 1
        complete_line widmo-analyze -- -
        ' _ "$completion" 2>&1)
    # One line each; the last (files after "--", none starting with "-") is empty.
    expected=$'blackman hamming hann rectangle\nhamming hann\n--spectrogram --spectrum --spl-offset\na.wav b.FLAC sub\nsub\n1 12'
    [ "$got" = "$expected" ] ||
        fail "completion: got"$'\n'"$got"$'\n'"wanted"$'\n'"$expected"
else
    fail "bash-completion is not installed (scripts/install-deps.sh installs it)"
fi

[ "$failures" -eq 0 ] && echo "cli: all checks passed"
[ "$failures" -eq 0 ]
