# alive WHAT COMMAND...: runs a step of a script, shows that it is alive, and its output only when it fails.
# To be sourced. On a terminal and in a log alike: one line a step, a dot every two seconds.
alive() {
    local what=$1 log started status=0 pid
    shift
    log=$(mktemp)
    started=$(date +%s)
    printf '%-58s' "$what"
    "$@" >"$log" 2>&1 </dev/null &
    pid=$!
    while kill -0 "$pid" 2>/dev/null; do
        # A tenth of a second at first, so that a step that has nothing to do costs nothing.
        for _ in 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19 20; do
            sleep 0.1
            kill -0 "$pid" 2>/dev/null || break 2
        done
        printf '.'
    done
    wait "$pid" || status=$?
    if [ "$status" = 0 ]; then
        printf ' done, %s s\n' "$(($(date +%s) - started))"
    else
        printf ' FAILED\n'
        tail -n 80 "$log" >&2
    fi
    rm -f "$log"
    return "$status"
}
