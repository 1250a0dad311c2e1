# What the scripts here have in common: starting processes, and ending just these again. To be sourced.
# shellcheck shell=bash

started=()  # Processes that were started and not ended yet.

# Prints a process and its descendants, in the order of their numbers.
tree() {
    local pid children
    {
        echo "$1"
        for children in /proc/"$1"/task/*/children; do
            for pid in $(cat "$children" 2>/dev/null); do tree "$pid"; done
        done
    } | sort -n
}

# Stops processes, and waits until all are.
stop() {
    local pid
    kill -STOP "$@" 2>/dev/null || true
    for pid in "$@"; do
        for _ in {1..50}; do
            grep -q '^State:[[:space:]][TtZX]' "/proc/$pid/status" 2>/dev/null && break
            sleep 0.1
        done
    done
}

# Ends a process that was started: asks it to, and after ten seconds kills what is left of it and its descendants.
end() {
    local root=$1 pid pids other=()
    [ -d "/proc/$root" ] && mapfile -t pids < <(tree "$root") || pids=("$root")
    kill -CONT "${pids[@]}" 2>/dev/null || true
    kill "$root" 2>/dev/null || true
    for _ in {1..100}; do
        grep -qs '^State:[[:space:]][^ZX]' "/proc/$root/status" || break
        sleep 0.1
    done
    kill -KILL "${pids[@]}" 2>/dev/null || true
    wait "$root" 2>/dev/null || true
    for pid in "${started[@]}"; do [ "$pid" = "$root" ] || other+=("$pid"); done
    started=("${other[@]}")
}

end_all() {
    local pid
    for pid in "${started[@]}"; do end "$pid"; done
}

# Waits until there is something in the file; false when the process that is to write it has ended, or nothing came
# within three minutes.
await_text() {
    for _ in {1..1800}; do
        [ -s "$1" ] && return
        grep -qs '^State:[[:space:]][^ZX]' "/proc/$2/status" || return 1
        sleep 0.1
    done
    return 1
}
