# shellcheck shell=bash
# Starts real HTTP/2 servers on loopback, as children of the script that sources this, and stops
# them when it ends. Callers set WORK to a directory of their own first.
#
# After start_servers: PLAIN_PORT and TLS_PORT are HAProxy's, NGHTTPD_PORT is nghttpd's own; all
# serve $WORK/docroot, and what is posted to them comes back.

PATH=$PATH:/usr/sbin
SERVER_PIDS=()

stop_servers() {
    local pid
    for pid in "${SERVER_PIDS[@]}"; do kill "$pid" 2>/dev/null || true; done
    for pid in "${SERVER_PIDS[@]}"; do wait "$pid" 2>/dev/null || true; done
    SERVER_PIDS=()
}

# For a child that has been waited for: its identifier may be another process's by now.
forget_server() {
    local pid kept=()
    for pid in "${SERVER_PIDS[@]}"; do [ "$pid" = "$1" ] || kept+=("$pid"); done
    SERVER_PIDS=("${kept[@]}")
}

stop_server() {
    kill "$1" 2>/dev/null || true
    wait "$1" 2>/dev/null || true
    forget_server "$1"
}

# Prints the inode of each socket that listens on the port of 127.0.0.1, or of any address.
listeners() {
    awk -v port=":$(printf '%04X' "$1")" \
        '$4 == "0A" && $2 ~ port "$" && $2 ~ /^(0100007F|00000000):/ { print $10 }' /proc/net/tcp
}

# Whether it is this process, or a child of it, that listens on the port.
listens() {
    local inode folders=("/proc/$1/fd") child children=()
    read -ra children 2>/dev/null <"/proc/$1/task/$1/children" || true
    for child in "${children[@]}"; do folders+=("/proc/$child/fd"); done
    for inode in $(listeners "$2"); do
        if find "${folders[@]}" -lname "socket:\[$inode\]" 2>/dev/null | grep -q .; then return 0; fi
    done
    return 1
}

# Prints a port that nobody listens on, below those that the system hands out by itself.
free_port() {
    local port
    while :; do
        port=$((10000 + (RANDOM * 32768 + RANDOM) % 22000))
        [ -n "$(listeners "$port")" ] || break
    done
    printf '%s\n' "$port"
}

# Waits until the process listens on the port; fails when it has ended or 20 s have gone by.
wait_for_server() {
    local pid=$1 port=$2 end=$((SECONDS + 20))
    while kill -0 "$pid" 2>/dev/null && [ "$SECONDS" -lt "$end" ]; do
        if listens "$pid" "$port"; then return 0; fi
        sleep 0.05
    done
    return 1
}

# start_server LOG COMMAND ARGS... : starts a child that ends with this script, whatever ends the
# script. Its process identifier goes to SERVER_PID.
start_server() {
    local log=$1
    shift
    setpriv --pdeathsig TERM -- "$@" >"$log" 2>&1 </dev/null &
    SERVER_PID=$!
    SERVER_PIDS+=("$SERVER_PID")
}

make_certificate() {
    local log=$WORK/openssl.log
    if ! openssl req -x509 -newkey rsa:2048 -nodes -days 2 -subj /CN=localhost \
        -keyout "$WORK/key.pem" -out "$WORK/cert.pem" >"$log" 2>&1; then
        cat "$log" >&2
        return 1
    fi
    cat "$WORK/cert.pem" "$WORK/key.pem" >"$WORK/both.pem"
}

start_nghttpd() {
    NGHTTPD_PORT=$(free_port)
    start_server "$WORK/nghttpd.log" nghttpd --no-tls --echo-upload -d "$WORK/docroot" \
        -a 127.0.0.1 "$NGHTTPD_PORT"
    wait_for_server "$SERVER_PID" "$NGHTTPD_PORT"
}

# Over TLS a client may choose h2 by ALPN, or speak it without. Without noreuseport HAProxy would share
# a port with another HAProxy that has it already.
start_haproxy() {
    PLAIN_PORT=$(free_port)
    TLS_PORT=$(free_port)
    cat >"$WORK/haproxy.cfg" <<CFG
global
    noreuseport
defaults
    mode http
    timeout connect 10s
    timeout client 120s
    timeout server 120s
frontend plain
    bind 127.0.0.1:$PLAIN_PORT proto h2
    default_backend nghttpd
frontend tls
    bind 127.0.0.1:$TLS_PORT ssl crt $WORK/both.pem alpn h2 proto h2
    default_backend nghttpd
backend nghttpd
    server s1 127.0.0.1:$NGHTTPD_PORT proto h2
CFG
    start_server "$WORK/haproxy.log" haproxy -db -f "$WORK/haproxy.cfg"
    wait_for_server "$SERVER_PID" "$PLAIN_PORT" && wait_for_server "$SERVER_PID" "$TLS_PORT"
}

# Somebody may take a port between its choice and its use, so a failed start is tried again.
start_servers() {
    local try
    mkdir -p "$WORK/docroot"
    make_certificate || return 1
    for try in 1 2 3 4 5; do
        if start_nghttpd && start_haproxy; then return 0; fi
        stop_servers
    done
    echo "cannot start the servers after $try tries; their logs:" >&2
    cat "$WORK"/nghttpd.log "$WORK"/haproxy.log >&2
    return 1
}
