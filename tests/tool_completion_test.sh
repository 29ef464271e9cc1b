#!/usr/bin/env bash
# Drives the bash completion of tolven-diag as bash does on a Tab, for a table of command lines,
# and checks it against the built tool's --help: every option listed there is offered and no
# other, and options are offered after each option without a value and after none with one.
# Runs once with plain compgen and once more with bash-completion's helpers when installed.
#   tests/tool_completion_test.sh COMPLETION_SCRIPT TOOL
# TOLVEN_TEST_EMULATOR runs a cross-built tool.
set -uo pipefail
script=$(realpath "$1")
tool=$2
read -r -a emulator <<<"${TOLVEN_TEST_EMULATOR:-}"
export LC_ALL=C

help=$("${emulator[@]}" "$tool" --help) || { echo "FAIL: $tool --help exited with $?"; exit 1; }
# "  -m, --mode MODE   text" or "      --raw   text"; wrapped text is indented deeper.
options=() valued=() flags=()
while IFS= read -r line; do
    [[ $line =~ ^\ {2,6}(-.*) ]] || continue
    column=${BASH_REMATCH[1]%%  *}
    read -r -a words <<<"${column//,/ }"
    names=()
    for word in "${words[@]}"; do [[ $word == -* ]] && names+=("$word"); done
    options+=("${names[@]}")
    if [[ $column == *' '[A-Z]* ]]; then valued+=("${names[@]}"); else flags+=("${names[@]}"); fi
done <<<"$help"
all_options=$(printf '%s\n' "${options[@]}" | sort | paste -sd ' ')
((${#options[@]} >= 20 && ${#valued[@]} >= 10)) ||
    { echo "FAIL: only ${#options[@]} options (${#valued[@]} with a value) in --help"; exit 1; }

tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
mkdir "$tmp/logs"
# Regular files are never offered as ports; a link to a character device is.
touch "$tmp/modem.sock" "$tmp/tty-notes"
ln -s /dev/null "$tmp/tty-link"
printf '%s\n' lab1 lab2 other >"$tmp/hosts"
export HOSTFILE=$tmp/hosts
cd "$tmp" || exit 1

# LINE|EXPECTED: the sorted offers for the cursor at the end of LINE; "~" before EXPECTED: at
# least those (the host's serial devices come along).
cases=(
    "tolven-diag --mo|--mode"
    "tolven-diag --o|--offline-log-dir --out-dir"
    "tolven-diag 4b --ra|--raw"
    "tolven-diag -- --r|"
    "tolven-diag --raw=|"
    "tolven-diag -m |callback dci"
    "tolven-diag --mode=c|callback"
    "tolven-diag --mode=|callback dci"
    "tolven-diag -vm |callback dci"
    "tolven-diag --port x --framing |hdlc nhdlc"
    "tolven-diag --framing=n|nhdlc"
    "tolven-diag -t |"
    "tolven-diag --capacity=|"
    "tolven-diag --count=|"
    "tolven-diag -n --linger |"
    "tolven-diag --offline-log-dir |"
    "tolven-diag --port |~auto logs tcp: tty-link"
    "tolven-diag --port a|auto"
    "tolven-diag --port t|tcp: tty-link"
    "tolven-diag --port=tc|tcp:"
    "tolven-diag --port tcp:la|lab1: lab2:"
    "tolven-diag --port=tcp:lab1:|"
    "tolven-diag --port m|"
    "tolven-diag --port l|logs"
    "tolven-diag --out-dir |logs"
    "tolven-diag --offline-log-dir d --out-dir=l|logs"
    "tolven-diag --prop debug.|debug.offline_log.enable= debug.offline_log.module="
    "tolven-diag --prop debug.offline_log.enable=|"
    "tolven-diag |$all_options"
)

# Sets the COMP_ variables as bash does (words also break at '=' and ':'), calls the completion
# and puts its offers, sorted, in $got.
complete_line() {
    local line=$1 token tokens
    COMP_LINE=$line
    COMP_POINT=${#line}
    COMP_WORDBREAKS=$' \t\n"\'><=;|&(:'
    COMP_WORDS=()
    read -r -a tokens <<<"$line"
    for token in "${tokens[@]}"; do
        while [[ $token =~ ^([^=:]*)([=:]+)(.*)$ ]]; do
            [[ -n ${BASH_REMATCH[1]} ]] && COMP_WORDS+=("${BASH_REMATCH[1]}")
            COMP_WORDS+=("${BASH_REMATCH[2]}")
            token=${BASH_REMATCH[3]}
        done
        [[ -n $token ]] && COMP_WORDS+=("$token")
    done
    [[ $line == *' ' ]] && COMP_WORDS+=("")
    COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
    COMPREPLY=()
    _tolven_diag
    got=$(printf '%s\n' "${COMPREPLY[@]}" | sort | paste -sd ' ')
}

run_cases() {
    local how=$1 failed=0 case line want option
    bad() { failed=1; echo "FAIL ($how): $*"; }
    [[ $(complete -p tolven-diag 2>&1) == 'complete -F _tolven_diag tolven-diag' ]] ||
        { bad "not registered: $(complete -p tolven-diag 2>&1)"; return 1; }
    for case in "${cases[@]}"; do
        line=${case%%|*}
        want=${case#*|}
        complete_line "$line"
        if [[ $want == '~'* ]]; then
            for option in ${want#'~'}; do
                [[ " $got " == *" $option "* ]] || bad "'$line' offers '$got', not $option"
            done
        elif [[ $got != "$want" ]]; then
            bad "'$line' offers '$got', expected '$want'"
        fi
    done
    for option in "${valued[@]}"; do
        complete_line "tolven-diag $option "
        [[ " $got" != *' -'* ]] || bad "$option takes a value, but options are offered after it"
    done
    for option in "${flags[@]}"; do
        complete_line "tolven-diag $option "
        [[ " $got " == *' --help '* ]] || bad "$option takes no value, but '$got' comes after it"
    done
    ((failed == 0)) && echo "ok ($how): ${#cases[@]} lines, ${#options[@]} options"
    return $failed
}

status=0
for helpers in "" /usr/share/bash-completion/bash_completion; do
    [[ -z $helpers || -f $helpers ]] || { echo "no $helpers: checked without it"; continue; }
    (
        # shellcheck source=/dev/null
        [[ -z $helpers ]] || BASH_COMPLETION_USER_FILE=/dev/null source "$helpers"
        # shellcheck source=/dev/null
        source "$script"
        run_cases "${helpers:-plain compgen}"
    ) || status=1
done
exit $status
