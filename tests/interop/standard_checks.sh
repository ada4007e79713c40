# shellcheck shell=bash
# The checks of scripts/interop that the standard edition has to itself, by standard_driver.cpp.
# Sourced after checks.sh.
#
# shellcheck disable=SC2034,SC2153,SC2154

# What the server said to a request that went wrong: how it ended stream or connection; if it did
# not, the head of its last answer and the frame that ended it.
server_words() {
    awk '$3 == ">" && $4 ~ /^closes|^resets|^ends/ { over[$1] = 1 } # then it is the client who ends
        $3 != "<" || over[$1] { next }
        $4 == "RST_STREAM" || $4 == "GOAWAY" || $4 ~ /^HTTP\/1|^closes|^resets|^ends|^cannot/ {
            if (bad == "") { sub(/^[^<]*< /, ""); bad = $0 }
        }
        / HEADERS stream .*:status/ { sub(/^[^<]*< /, ""); head = $0; last = "" }
        / DATA stream .*END_STREAM/ { sub(/^[^<]*< /, ""); last = "; " $0 }
        END { print bad != "" ? bad : head last }' "$OUT/$1.$2.frames"
}

# run_recorded SERVER CHECK PATH COMMAND... : through a recorder.
run_recorded() {
    start_recorder "$1" -- "$2"
    start_recorded_driver "$1" "$2" "${@:3}"
    wait_for_drivers
    stop_recorders
}

# How many requests were unanswered when the server ended their connections; empty: none.
unanswered() {
    awk -F '; ' '/^end: / { sum += $4 } END { if (sum > 0) printf "%d unanswered: ", sum }' \
        "$OUT/$1.$2.frames"
}

# record_seen SERVER CHECK SEEN: adds to a bad outcome what a second run, through the recorder, saw.
record_seen() {
    if [ "$3" = ok ]; then
        record "$1" "$2" ok
    elif [ "$(said "$1" "$2")" = ok ]; then
        record "$1" "$2" "$3 (then: ok)"
    else
        record "$1" "$2" "$3 ($(unanswered "$1" "$2")$(server_words "$1" "$2"))"
    fi
}

# check_outcome SERVER CHECK PATH COMMAND... : one that went wrong is run again, to see the frames.
check_outcome() {
    local seen
    start_driver "$1" "$2" "${PORT[$1]}" "${@:3}"
    wait_for_drivers
    seen=$(said "$1" "$2")
    [ "$seen" = ok ] || run_recorded "$@"
    record_seen "$1" "$2" "$seen"
}

# check_body FILE ARGUMENT... : check_outcome, where each answer's body has to be the file.
check_body() {
    local DRIVER_OPTIONS=(--body "$1")
    check_outcome "${@:2}"
}

# A body whose length is not told beforehand, but to lighttpd, which answers 411 without.
check_upload() {
    local length=()
    if [[ $1 == lighttpd* ]]; then length=(--header "content-length:$3"); fi
    check_outcome "$1" "$2" "$(path_of "$1" upload)" exchange --method POST --back "${length[@]}" \
        --upload "$WORK/docroot/big.bin" --upload-bytes "$3"
}

# What nghttpd has in place of an application: it echoes uploads, and answers "not modified".
path_of() {
    if [[ $1 != nghttpd* ]]; then printf '/app/%s' "$2"; else printf '/%s' "$2"; fi
}

check_without_content() {
    check_body "$WORK/docroot/empty.txt" "$1" empty /empty.txt exchange --empty
    check_outcome "$1" empty-204 /app/204 exchange --status 204 --empty
    if [[ $1 == nghttpd* ]]; then
        check_outcome "$1" empty-304 /small.txt exchange --status 304 --empty \
            --header "if-modified-since:Fri, 01 Jan 2038 00:00:00 GMT"
    else
        check_outcome "$1" empty-304 /app/304 exchange --status 304 --empty
    fi
}

check_standard_exchanges() {
    local small=$WORK/docroot/small.txt deleted=$WORK/deleted
    check_body "$small" "$1" GET /small.txt exchange
    [ "$(result "$1" GET)" = ok ] || return 0 # nothing else would be more
    check_outcome "$1" HEAD /small.txt exchange --method HEAD --empty
    check_upload "$1" POST-0 0
    check_upload "$1" POST-1 1
    check_upload "$1" POST-16K 16384
    check_upload "$1" POST-1MB 1000000
    [ "$form" = short ] || TIMEOUT_MS=120000 check_upload "$1" POST-100MB 100000000
    head -c 1000000 "$WORK/docroot/big.bin" >"$WORK/echoed"
    check_body "$WORK/echoed" "$1" echo /echo exchange --method POST \
        --header content-length:1000000 --upload "$WORK/echoed" --upload-bytes 1000000
    if echoes_itself "$1"; then
        check_body "$small" "$1" DELETE /small.txt exchange --method DELETE
    else
        printf 'DELETE without a body\n' >"$deleted"
        check_body "$deleted" "$1" DELETE /echo exchange --method DELETE
    fi
    check_without_content "$1"
    check_outcome "$1" 16K-headers /app/headers exchange --filler 16000
    check_outcome "$1" 100kB-request /small.txt large-headers 60000 100000
    check_early_refusal "$1"
    check_interim_and_trailers "$1"
    TIMEOUT_MS=120000 check_body "$WORK/docroot/big.bin" "$1" download /big.bin exchange
    check_body "$small" "$1" many /small.txt many "$CLIENTS"
}

# nghttpd would echo all of it.
check_early_refusal() {
    if [[ $1 == nghttpd* ]]; then
        check_outcome "$1" early-413 /app/limited exchange --status 413
        return
    fi
    check_outcome "$1" early-413 /app/limited early --method POST --status 413 \
        --upload "$WORK/docroot/huge.bin" --upload-bytes 1000000000 /small.txt
}

# Whether they came at all is seen in the frames only.
check_interim_and_trailers() {
    # Those that have no 103 of an application know 100.
    if [[ $1 =~ ^(nghttpd|tomcat|jetty|h2o|hypercorn) ]]; then
        run_recorded "$1" 1xx "$(path_of "$1" upload)" exchange --method POST --back \
            --header expect:100-continue --upload "$WORK/docroot/small.txt" --upload-bytes 10
    else
        run_recorded "$1" 1xx /app/early exchange
    fi
    if [ "$(said "$1" 1xx)" != ok ]; then
        record "$1" 1xx "$(said "$1" 1xx) ($(server_words "$1" 1xx))"
    elif grep -q '< HEADERS .*:status 1' "$OUT/$1.1xx.frames"; then
        record "$1" 1xx ok
    else
        record "$1" 1xx "none came ($(server_words "$1" 1xx))"
    fi
    check_trailers "$1"
}

# nghttpd has them for all answers or for none, so that is another nghttpd.
check_trailers() {
    local path=/app/trailers port=${PORT[$1]}
    if [[ $1 == nghttpd* ]]; then
        path=/small.txt
        PORT[$1]=$(free_port)
        "run_$1" --trailer "x-trailer: yes"
        wait_for_server "$SERVER_PID" "${PORT[$1]}" || true # the outcome tells
    fi
    local pid=$SERVER_PID
    check_outcome "$1" trailers "$path" exchange --trailer x-trailer
    if [[ $1 == nghttpd* ]]; then stop_server "$pid"; fi
    PORT[$1]=$port
}

# ---- all servers at once

# start_for_all CHECK COMMAND... : a driver for each of `answering`.
start_for_all() {
    local server DRIVER_OPTIONS=(--body "$WORK/docroot/small.txt")
    for server in "${answering[@]}"; do
        start_driver "$server" "$1" "${PORT[$server]}" /small.txt "${@:2}"
    done
}

# Rows of requests to one server after the other, while all servers see idle connections, too.
check_standard_rows() {
    local server check idle_drivers idle=()
    if [ "$form" = full ]; then idle=(30 120); fi
    for check in "${idle[@]}"; do start_for_all "idle-$check" idle "$check"; done
    idle_drivers=("${DRIVERS[@]}")
    DRIVERS=()
    for server in "${answering[@]}"; do
        check_body "$WORK/docroot/small.txt" "$server" successive /small.txt successive "$REQUESTS"
        # Hypercorn takes 44 ms for an answer.
        if [ "$form" = short ] || [[ $server == hypercorn* ]]; then continue; fi
        check_body "$WORK/docroot/small.txt" "$server" successive-20000 /small.txt successive 20000
    done
    DRIVERS=("${idle_drivers[@]}")
    wait_for_drivers
    for check in "${idle[@]}"; do
        for server in "${answering[@]}"; do record_driver "$server" "idle-$check"; done
    done
}

# ---- servers that end

# run_under_load SERVER CHECK PORT OPTION... : while clients ask, ends the server and starts it
# again, or reloads it.
run_under_load() {
    local server=$1 check=$2 process driver DRIVER_OPTIONS=(--body "$WORK/docroot/10kB.bin")
    process=$(process_of "$server")
    start_driver "$server" "$check" "$3" /10kB.bin load 8 "${@:4}"
    driver=$SERVER_PID
    await_started "$server" "$check"
    if [ "$check" = stop ]; then
        "stop_$process"
        await_end "$process"
        start_process "$process" || true # the driver says that it is not back
    else
        "reload_$process"
    fi
    kill -USR1 "$driver" 2>/dev/null || true
    wait_for_drivers
}

# check_under_load SERVER CHECK OPTION... : CHECK is stop or reload; nothing is recorded where a server
# cannot.
check_under_load() {
    local server=$1 check=$2 seen process
    process=$(process_of "$server")
    declare -F "${check}_$process" >/dev/null || return 0
    run_under_load "$server" "$check" "${PORT[$server]}" "${@:3}"
    seen=$(said "$server" "$check")
    if [ "$seen" != ok ]; then
        start_recorder "$server" -- "$check"
        run_under_load "$server" "$check" "$(recorded_port "$server" "$check")" "${@:3}"
        stop_recorders
    fi
    record_seen "$server" "$check" "$seen"
}
