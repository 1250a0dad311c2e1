# Completion of zorbel's and zorbel-capture's arguments for bash.

# The names of the processes that we may look at: the file names of their executables.
_zorbel_names() {
    find /proc/[0-9]*/exe -maxdepth 0 -lname '/*' -printf '%l\n' 2>/dev/null | sed 's/ (deleted)$//; s|.*/||' |
        grep -a '^[[:print:]]*$' | sort -u
}

_zorbel_pids() {
    find /proc/[0-9]*/exe -maxdepth 0 -lname '/*' -printf '%h\n' 2>/dev/null | cut -d / -f 3
}

# Offers the lines that begin with the typed text. Names are untrusted: compgen -W would run code in them.
_zorbel_offer() {
    local word
    while IFS= read -r word; do
        [[ $word == "$1"* ]] && COMPREPLY+=("$(printf %q "$word")")
    done
}

_zorbel() {
    local current=${COMP_WORDS[COMP_CWORD]} option=${COMP_WORDS[COMP_CWORD - 1]}
    # bash splits "--format=pages" into three words.
    if [[ $current == = ]]; then
        current=
    elif [[ $option == = ]]; then
        option=${COMP_WORDS[COMP_CWORD - 2]}
    fi
    COMPREPLY=()
    case $option in
        -f | --format) COMPREPLY=($(compgen -W 'bytes formatted pages' -- "$current")) ;;
        -j | --json) compopt -o default ;;
        --pid | --corpsePid) _zorbel_offer "$current" < <(_zorbel_pids) ;;
        --corpseName | --corpseDirtyFlags | --corpseProcFlags) ;;
        *)
            if [[ $current == -* && $option != -[px] && $option != --proc && $option != --exclude ]]; then
                COMPREPLY=($(compgen -W '-a --all -j --json -h --help -t --targetChildren -p --proc --pid
                    -x --exclude -s --skip -v -f --format -y --summary -w --wide --swapped --wired --physZorbel
                    --corpsePid --corpseName --corpseDirtyFlags --corpseProcFlags' -- "$current"))
            else
                _zorbel_offer "$current" < <(_zorbel_names; _zorbel_pids)
                [[ $option == -[px] || $option == --proc || $option == --exclude ]] || compopt -o default 2>/dev/null
            fi
            ;;
    esac
}

_zorbel_capture() {
    local current=${COMP_WORDS[COMP_CWORD]} option=${COMP_WORDS[COMP_CWORD - 1]}
    COMPREPLY=()
    if [[ $option == -o || $option == --output ]]; then
        compopt -o default
    elif [[ $current == -* ]]; then
        COMPREPLY=($(compgen -W '-a --all -t --targetChildren -o --output --force --physZorbel -h --help' -- "$current"))
    else
        _zorbel_offer "$current" < <(_zorbel_names; _zorbel_pids)
    fi
}

complete -F _zorbel zorbel
complete -F _zorbel_capture zorbel-capture
