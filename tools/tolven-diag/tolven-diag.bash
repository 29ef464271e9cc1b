# bash completion for tolven-diag(1)                                     -*- shell-script -*-
# Installed as share/bash-completion/completions/tolven-diag, or: source tolven-diag.bash
# Uses bash-completion's helpers when they are loaded and plain compgen otherwise.

# Without bash-completion: the words up to the cursor, split at blanks only, so that "--mode=c"
# and "tcp:host" stay whole as they do with `_init_completion -s -n :`.
_tolven_diag_words()
{
    local line=${COMP_LINE:0:COMP_POINT}
    read -r -a words <<<"$line"
    [[ -z $line || $line == *[[:space:]] ]] && words+=("")
    cword=$((${#words[@]} - 1))
    cur=${words[cword]}
    prev=
    ((cword > 0)) && prev=${words[cword - 1]}
    if [[ $cur == --?*=* ]]; then
        prev=${cur%%=*}
        cur=${cur#*=}
        split=true
    fi
}

# The words of $1 that start with $cur, as COMPREPLY.
_tolven_diag_offer()
{
    mapfile -t COMPREPLY < <(compgen -W "$1" -- "$cur")
}

# Files (or with -d, directories) starting with $cur, appended to COMPREPLY.
_tolven_diag_files()
{
    if declare -F _filedir >/dev/null; then
        _filedir "$@"
        return
    fi
    local kind=-f had=${#COMPREPLY[@]}
    [[ ${1-} == -d ]] && kind=-d
    mapfile -t -O "$had" COMPREPLY < <(compgen "$kind" -- "$cur")
    # Only with files to show: it would also quote the colon of "tcp:".
    ((${#COMPREPLY[@]} > had)) && compopt -o filenames 2>/dev/null
}

# Directories, to walk into, and character devices (serial ports, ptys) starting with $cur,
# appended to COMPREPLY: a port is never a regular file.
_tolven_diag_devices()
{
    local f had=${#COMPREPLY[@]}
    while IFS= read -r f; do
        [[ -d $f || -c $f ]] && COMPREPLY+=("$f")
    done < <(compgen -f -- "$cur")
    ((${#COMPREPLY[@]} > had)) && compopt -o filenames 2>/dev/null
}

# auto, a serial device or tcp:HOST:PORT with HOST from the known host names.
_tolven_diag_port()
{
    if [[ $cur == tcp:* ]]; then
        [[ $cur == tcp:*:* ]] && return
        mapfile -t COMPREPLY < <(compgen -A hostname -P tcp: -S : -- "${cur#tcp:}")
    else
        [[ tcp: == "$cur"* ]] && COMPREPLY=(tcp:)
        [[ auto == "$cur"* ]] && COMPREPLY+=(auto)
        if [[ -z $cur ]]; then
            local dev
            for dev in /dev/ttyUSB* /dev/ttyACM* /dev/serial/by-id/*; do
                [[ -e $dev ]] && COMPREPLY+=("$dev")
            done
        fi
        _tolven_diag_devices
    fi
    # Bash replaces only the text after the last colon of the word.
    if [[ $cur == *:* && $COMP_WORDBREAKS == *:* ]]; then
        local colon_word=${cur%"${cur##*:}"}
        COMPREPLY=("${COMPREPLY[@]#"$colon_word"}")
    fi
    [[ ${#COMPREPLY[@]} -eq 1 && ${COMPREPLY[0]} == *: ]] && compopt -o nospace 2>/dev/null
}

_tolven_diag()
{
    local cur prev words cword split=false
    if declare -F _init_completion >/dev/null; then
        _init_completion -s -n : || return
    else
        COMPREPLY=()
        _tolven_diag_words
    fi
    ((cword > 0)) || return

    local i
    for ((i = 1; i < cword; i++)); do
        [[ ${words[i]} == -- ]] && return # the rest is the packet
    done

    # In a cluster of short options (-vm), the one that takes a value comes last.
    [[ $prev =~ ^-[nvh]+([mtc])$ ]] && prev=-${BASH_REMATCH[1]}
    case $prev in
        -m | --mode)
            _tolven_diag_offer 'dci callback'
            return
            ;;
        --framing)
            _tolven_diag_offer 'hdlc nhdlc'
            return
            ;;
        --port)
            _tolven_diag_port
            return
            ;;
        --out-dir)
            _tolven_diag_files -d
            return
            ;;
        --read-log | --answers)
            _tolven_diag_files
            return
            ;;
        --prop)
            # The properties that the offline-log update reads.
            [[ $cur == *=* ]] && return
            _tolven_diag_offer 'persist.vendor.radio.diag_log_auto=
                persist.vendor.radio.diag_log_trriger= debug.offline_log.module=
                debug.offline_log.enable='
            compopt -o nospace 2>/dev/null
            return
            ;;
        -t | --timeout | -c | --capacity | --count | --interval | --linger | --offline-log-dir)
            return
            ;;
    esac
    $split && return

    # Anything else is hex, which has nothing to offer.
    [[ -z $cur || $cur == -* ]] || return
    _tolven_diag_offer '-m --mode -t --timeout -c --capacity --count --interval --raw --json
        -n --no-wait --linger --port --framing --mdm --offline-log-dir --out-dir --prop
        --read-log --answers --list-ports --all --probe -v --verbose -h --help --version'
} &&
    complete -F _tolven_diag tolven-diag
