# shellcheck shell=bash
# Starts real HTTP/2 servers on loopback, as children of the script that sources this, and stops
# them when it ends. Callers set WORK to a directory of their own first.
#
# After start_servers: PLAIN_PORT and TLS_PORT are HAProxy's, NGHTTPD_PORT is nghttpd's own; all
# serve $WORK/docroot, and what is posted to them comes back.

SERVER_PIDS=()

stop_servers() {
    local pid
    for pid in "${SERVER_PIDS[@]}"; do kill "$pid" 2>/dev/null || true; done
    for pid in "${SERVER_PIDS[@]}"; do wait "$pid" 2>/dev/null || true; done
    SERVER_PIDS=()
}

port_answers() { (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null; }

# Prints a port that nobody listens on, below those that the system hands out by itself.
free_port() {
    local port
    while :; do
        port=$((10000 + (RANDOM * 32768 + RANDOM) % 22000))
        port_answers "$port" || break
    done
    printf '%s\n' "$port"
}

# Waits until the port answers; fails when its server has ended or 10 s have gone by.
wait_for_port() {
    local port=$1 pid=$2 i
    for ((i = 0; i < 200; i++)); do
        kill -0 "$pid" 2>/dev/null || return 1
        port_answers "$port" && return 0
        sleep 0.05
    done
    return 1
}

make_certificate() {
    openssl req -x509 -newkey rsa:2048 -nodes -days 2 -subj /CN=localhost \
        -keyout "$WORK/key.pem" -out "$WORK/cert.pem" 2>/dev/null
    cat "$WORK/cert.pem" "$WORK/key.pem" >"$WORK/both.pem"
}

start_nghttpd() {
    NGHTTPD_PORT=$(free_port)
    nghttpd --no-tls --echo-upload -d "$WORK/docroot" -a 127.0.0.1 "$NGHTTPD_PORT" \
        >"$WORK/nghttpd.log" 2>&1 &
    SERVER_PIDS+=($!)
    wait_for_port "$NGHTTPD_PORT" $!
}

start_haproxy() {
    PLAIN_PORT=$(free_port)
    TLS_PORT=$(free_port)
    cat >"$WORK/haproxy.cfg" <<CFG
defaults
    mode http
    timeout connect 10s
    timeout client 120s
    timeout server 120s
frontend plain
    bind 127.0.0.1:$PLAIN_PORT proto h2
    default_backend nghttpd
frontend tls
    bind 127.0.0.1:$TLS_PORT ssl crt $WORK/both.pem proto h2
    default_backend nghttpd
backend nghttpd
    server s1 127.0.0.1:$NGHTTPD_PORT proto h2
CFG
    "$(PATH=$PATH:/usr/sbin command -v haproxy)" -db -f "$WORK/haproxy.cfg" \
        >"$WORK/haproxy.log" 2>&1 &
    SERVER_PIDS+=($!)
    wait_for_port "$PLAIN_PORT" $! && wait_for_port "$TLS_PORT" $!
}

# Somebody may take a port between its choice and its use, so a failed start is tried again.
start_servers() {
    local try
    mkdir -p "$WORK/docroot"
    make_certificate
    for try in 1 2 3; do
        if start_nghttpd && start_haproxy; then return 0; fi
        stop_servers
    done
    echo "cannot start the servers after $try tries; their last words:" >&2
    cat "$WORK"/*.log >&2
    return 1
}
