# shellcheck shell=bash
# The checks of scripts/interop, as far as both editions have them; standard_checks.sh has the
# others. Each takes a server's name and leaves its outcome in SERVER.CHECK.result of $OUT, the
# edition's directory: "ok", "ok" with what happened besides, or what went wrong, with how the server
# said so in brackets. Sourced after servers.sh, with the variables that scripts/interop sets.
#
# shellcheck disable=SC2153,SC2154

record() { printf '%s\n' "$3" >"$OUT/$1.$2.result"; }
result() { cat -- "$OUT/$1.$2.result" 2>/dev/null || printf -- '-\n'; }

# ---- seeing frames

RECORDERS=()

# start_recorder SERVER OPTION... -- NAME... : puts recorders before the server; the frames go to
# SERVER.NAME.frames of $OUT.
start_recorder() {
    local server=$1 options=() logs=() log end=$((SECONDS + 20))
    shift
    if [[ $server == *-tls ]]; then options=(--tls "$WORK/both.pem"); fi
    if [[ $server == *-tls && $edition == standard ]]; then options+=(--alpn); fi
    while [ "$1" != -- ]; do
        options+=("$1")
        shift
    done
    for log in "${@:2}"; do logs+=("$OUT/$server.$log.frames"); done
    rm -f -- "${logs[@]}"
    start_server "$WORK/$server.recorder" python3 tests/interop/recorder.py "${options[@]}" \
        "${PORT[$server]}" "${logs[@]}"
    RECORDERS+=("$SERVER_PID")
    for log in "${logs[@]}"; do
        until grep -qs '^port ' "$log"; do
            if ! kill -0 "$SERVER_PID" 2>/dev/null || [ "$SECONDS" -gt "$end" ]; then
                printf 'no recorder before %s:\n' "$server" >&2
                cat "$WORK/$server.recorder" >&2
                exit 1
            fi
            sleep 0.05
        done
    done
}

stop_recorders() {
    local pid
    for pid in "${RECORDERS[@]}"; do stop_server "$pid"; done
    RECORDERS=()
}

recorded_port() { sed -n 's/^port //p' "$OUT/$1.$2.frames"; }

# The first word of the server that speaks of an end.
first_bad_word() {
    awk '$3 != "<" { next }
        $4 == "RST_STREAM" || $4 == "GOAWAY" { print $4, $7; exit }
        $4 ~ /^HTTP\/1|^closes|^resets|^ends|^cannot/ { sub(/^[^<]*< /, ""); print; exit }' "$1"
}

# Sums up the lines "end: HOW; N requests; S s" of the files, by HOW.
ends() {
    awk -F '; ' '
        function range(low, high) { return low == high ? low : low " to " high }
        !sub(/^end: /, "") { next }
        {
            if (!($1 in most)) { least[$1] = $2 + 0; from[$1] = $3 + 0 }
            if ($2 + 0 < least[$1]) least[$1] = $2 + 0
            if ($2 + 0 > most[$1]) most[$1] = $2 + 0
            if ($3 + 0 < from[$1]) from[$1] = $3 + 0
            if ($3 + 0 > to[$1]) to[$1] = $3 + 0
        }
        END {
            for (how in most) {
                requests = range(least[how], most[how])
                printf "; ended by %s after %s request%s, %s s", how, requests,
                    requests == "1" ? "" : "s", range(from[how] + 0, to[how] + 0)
            }
        }' "$@"
}

# ---- one exchange by h2request

# Words for its exit codes.
outcome() {
    case "$1" in
        0) printf 'ok' ;;
        3) printf 'cannot connect' ;;
        4) printf 'request failed' ;;
        5) printf 'connection lost' ;;
        6) printf 'timed out' ;;
        22) printf 'status 400 or above' ;;
        *) printf 'exit code %s' "$1" ;;
    esac
}

# exchange SERVER PORT EXPECTED ARGS... PATH: whether the answer's body is the file EXPECTED.
exchange() {
    local server=$1 port=$2 expected=$3 answer=$WORK/$1.answer code=0
    # shellcheck disable=SC2046 # no option, or one word
    "$H2REQUEST" $(tls_option "$server") --timeout "$TIMEOUT_MS" -o "$answer" "${@:4:$#-4}" \
        127.0.0.1 "$port" "${*: -1}" >"$WORK/$server.h2request" 2>&1 || code=$?
    if [ "$code" -ne 0 ]; then
        outcome "$code"
    elif cmp -s -- "$expected" "$answer"; then
        printf 'ok'
    else
        printf 'another body: %s bytes of %s' "$(stat -c %s -- "$answer")" \
            "$(stat -c %s -- "$expected")"
    fi
    rm -f -- "$answer"
}

# check_exchange SERVER CHECK EXPECTED ARGS... PATH: a failed one is made again, to see the frames.
check_exchange() {
    local server=$1 check=$2 seen again
    seen=$(exchange "$server" "${PORT[$server]}" "${@:3}")
    if [ "$seen" != ok ]; then
        start_recorder "$server" -- "$check"
        again=$(exchange "$server" "$(recorded_port "$server" "$check")" "${@:3}")
        if [ "$again" = "$seen" ]; then
            seen+=" ($(first_bad_word "$OUT/$server.$check.frames"))"
        else
            seen+=" (then: $again)"
        fi
        stop_recorders
    fi
    record "$server" "$check" "$seen"
}

# Whether what is posted comes back from an echo of the server's own.
echoes_itself() { [[ $1 == nghttpd* || $1 == haproxy* ]]; }

check_post() {
    local upload=$WORK/$1.upload expected=$WORK/$1.upload
    head -c "$3" "$WORK/docroot/big.bin" >"$upload"
    if [ "$3" -eq 0 ] && ! echoes_itself "$1"; then
        expected=$WORK/$1.expected
        printf 'POST without a body\n' >"$expected"
    fi
    check_exchange "$1" "$2" "$expected" -X POST --data-file "$upload" /echo
}

# nghttpd serves a file whatever the method is.
check_delete() {
    local expected=$WORK/$1.expected
    if echoes_itself "$1"; then
        check_exchange "$1" DELETE "$WORK/docroot/small.txt" -X DELETE /small.txt
        return
    fi
    printf 'DELETE without a body\n' >"$expected"
    check_exchange "$1" DELETE "$expected" -X DELETE /echo
}

check_exchanges() {
    check_exchange "$1" GET "$WORK/docroot/small.txt" /small.txt
    [ "$(result "$1" GET)" = ok ] || return 0 # nothing else would be more
    check_post "$1" POST-0 0
    check_post "$1" POST-1 1
    check_post "$1" POST-16K 16384
    check_post "$1" POST-1MB 1000000
    check_delete "$1"
    TIMEOUT_MS=120000 check_exchange "$1" download "$WORK/docroot/big.bin" /big.bin
}

# ---- by the driver

DRIVERS=()
DRIVER_OPTIONS=()

# start_driver SERVER CHECK PORT PATH COMMAND... : it writes SERVER.CHECK of $OUT, and ends with the
# servers when it has not ended by itself.
start_driver() {
    local options=("${DRIVER_OPTIONS[@]}")
    if [ "$edition" = standard ]; then options+=(--timeout "$TIMEOUT_MS"); fi
    rm -f -- "$OUT/$1.$2"
    # shellcheck disable=SC2046 # no option, or one word
    start_server "$OUT/$1.$2" "$DRIVER" $(tls_option "$1") "${options[@]}" 127.0.0.1 "${@:3}"
    DRIVERS+=("$SERVER_PID")
}

# The same through the recorder that is there for the check.
start_recorded_driver() { start_driver "$1" "$2" "$(recorded_port "$1" "$2")" "${@:3}"; }

wait_for_drivers() {
    local pid
    for pid in "${DRIVERS[@]}"; do
        wait "$pid" || true
        forget_server "$pid"
    done
    DRIVERS=()
}

# The driver's words about the check.
said() {
    local words
    words=$(sed -n 's/^result: //p' "$OUT/$1.$2" | tail -n 1)
    printf '%s' "${words:-the driver said nothing}"
}

# Records what the driver has said, and how the server ended connections.
record_driver() {
    local frames=$OUT/$1.$2.frames words
    words=$(said "$1" "$2")
    if [ -f "$frames" ]; then words+=$(ends "$frames"); fi
    record "$1" "$2" "$words"
}

check_many() {
    start_driver "$1" many "${PORT[$1]}" /small.txt many "$CLIENTS"
    wait_for_drivers
    record_driver "$1" many
}

# What a row of requests does to all servers at once, each of them on a connection of its own.
check_rows() {
    local server check checks=(empty successive 10kB)
    if [ "$form" = full ]; then checks+=(idle idle-10kB); fi
    for server in "$@"; do
        start_recorder "$server" -- "${checks[@]}"
        start_recorded_driver "$server" empty /empty.txt empty
        start_recorded_driver "$server" successive /small.txt successive "$REQUESTS"
        start_recorded_driver "$server" 10kB /10kB.bin successive "$REQUESTS"
        [ "$form" = full ] || continue
        start_recorded_driver "$server" idle /small.txt idle "$IDLE_SECONDS" "$IDLE_INTERVAL"
        start_recorded_driver "$server" idle-10kB /10kB.bin idle "$IDLE_SECONDS" "$IDLE_INTERVAL"
    done
    wait_for_drivers
    stop_recorders
    for server in "$@"; do
        for check in "${checks[@]}"; do record_driver "$server" "$check"; done
    done
}

# Successive requests as fast as they go: one-byte bodies, which cost no credit, and nothing that
# waits for an acknowledgement.
check_burst() {
    local server
    for server in "$@"; do
        start_recorder "$server" --at-once -- burst
        start_recorded_driver "$server" burst /one.txt successive "$BURST"
    done
    wait_for_drivers
    stop_recorders
    for server in "$@"; do record_driver "$server" burst; done
}

# Waits until the driver of the check has said "started", or has ended.
await_started() {
    local end=$((SECONDS + 20))
    until grep -qsx started "$OUT/$1.$2"; do
        if ! kill -0 "$SERVER_PID" 2>/dev/null || [ "$SECONDS" -gt "$end" ]; then break; fi
        sleep 0.05
    done
}

# Kills the server in the middle of a body and starts it again; the driver tries to connect again.
check_killed() {
    local server=$1
    start_driver "$server" killed "${PORT[$server]}" /huge.bin killed /small.txt
    await_started "$server" killed
    kill_server "$server"
    start_process "$(process_of "$server")" || true # the driver says that it is not back
    wait_for_drivers
    record_driver "$server" killed
}
