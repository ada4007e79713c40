# shellcheck shell=bash
# The servers of scripts/interop. Sourced after scripts/lib/servers.sh, with WORK and `edition` set.
#
# A name of ALL is a port of a server's process. run_* may be called again after its process was
# killed: it uses the ports in PORT.
#
# stop_* ends a process in the way that lets requests finish; reload_* makes it read its configuration
# again while it serves, and returns when nothing of the former state is left. A server that cannot has
# no such function.
#
# shellcheck disable=SC2154

ALL=(haproxy haproxy-tls nginx nginx-tls h2o h2o-tls apache apache-tls apache-window node node-tls
    nghttpd nghttpd-tls)
declare -A PORT=() PID=() # by name, and by process

# nghttpd and Varnish cannot do both plain TCP and TLS.
process_of() {
    if [[ $1 == nghttpd* || $1 == varnish* ]]; then printf '%s' "$1"; else printf '%s' "${1%%-*}"; fi
}

# The option by which the edition's programs use TLS.
tls_option() {
    if [[ $1 != *-tls ]]; then return; fi
    if [ "$edition" = exact ]; then printf -- '--tls'; else printf -- '--ca %s' "$WORK/ca.pem"; fi
}

# Prints the names of ALL that the process serves.
names_of() {
    local name
    for name in "${ALL[@]}"; do [ "$(process_of "$name")" != "$1" ] || printf '%s\n' "$name"; done
}

# Prints the version of each server.
versions() {
    haproxy -v | awk 'NR == 1 { print "HAProxy " $3 }'
    nginx -v 2>&1 | sed 's,.*nginx/,nginx ,'
    h2o -v | awk 'NR == 1 { print "h2o " $3 }'
    apache2 -v | sed -n 's,.*Apache/\([^ ]*\).*,Apache httpd \1,p'
    printf 'Node.js %s\n' "$(node --version)"
    nghttpd --version | sed 's,nghttpd nghttp2/,nghttpd ,'
}

# An authority of this run, and what it certifies for all servers: cert.pem, key.pem, both in both.pem.
make_certificates() {
    cat >"$WORK/leaf.cnf" <<CFG
basicConstraints = CA:FALSE
subjectAltName = DNS:localhost, IP:127.0.0.1
CFG
    {
        openssl req -x509 -newkey rsa:2048 -nodes -days 2 -subj "/CN=authority of an interop run" \
            -keyout "$WORK/ca-key.pem" -out "$WORK/ca.pem" &&
            openssl req -newkey rsa:2048 -nodes -subj /CN=localhost -keyout "$WORK/key.pem" \
                -out "$WORK/request.pem" &&
            openssl x509 -req -days 2 -in "$WORK/request.pem" -extfile "$WORK/leaf.cnf" \
                -CA "$WORK/ca.pem" -CAkey "$WORK/ca-key.pem" -CAcreateserial -out "$WORK/cert.pem"
    } >"$WORK/openssl.log" 2>&1 || die "no certificates: $(cat "$WORK/openssl.log")"
    cat "$WORK/cert.pem" "$WORK/key.pem" >"$WORK/both.pem"
    chmod 644 "$WORK/cert.pem" "$WORK/key.pem"
}

# Over TLS a client may choose h2 by ALPN, or speak it without. Without noreuseport HAProxy would share
# a port with another HAProxy that has it already. `$@`: further options.
run_haproxy() {
    cat >"$WORK/haproxy.cfg" <<CFG
global
    noreuseport
    tune.bufsize 65536
    stats socket $WORK/haproxy.socket mode 600 level admin expose-fd listeners
defaults
    mode http
    timeout connect 10s
    timeout client 120s
    timeout server 120s
frontend plain
    bind 127.0.0.1:${PORT[haproxy]} proto h2
    use_backend app if { path_beg /app/ }
    default_backend nghttpd
frontend tls
    bind 127.0.0.1:${PORT[haproxy-tls]} ssl crt $WORK/both.pem alpn h2 proto h2
    use_backend app if { path_beg /app/ }
    default_backend nghttpd
backend nghttpd
    server s1 127.0.0.1:$NGHTTPD_PORT proto h2
backend app
    server s2 127.0.0.1:${PORT[echo]}
CFG
    start_server "$WORK/haproxy.log" haproxy -db -f "$WORK/haproxy.cfg" "$@"
}

stop_haproxy() { kill -USR1 "${PID[haproxy]}"; }

# A new process takes the listening sockets over, and tells the old one to finish.
reload_haproxy() {
    local new
    run_haproxy -x "$WORK/haproxy.socket" -sf "${PID[haproxy]}"
    new=$SERVER_PID
    await_end haproxy
    PID[haproxy]=$new
}

# It serves the echo behind the others too.
run_node() {
    start_server "$WORK/node.log" node tests/interop/server.js "${PORT[echo]}" "${PORT[node]}" \
        "${PORT[node-tls]}" "$WORK/docroot" "$WORK/both.pem"
}

stop_node() { kill "${PID[node]}"; }

# `$@`: further options.
run_nghttpd() {
    start_server "$WORK/nghttpd.log" nghttpd --no-tls --echo-upload -d "$WORK/docroot" "$@" \
        -a 127.0.0.1 "${PORT[nghttpd]}"
}

run_nghttpd-tls() {
    start_server "$WORK/nghttpd-tls.log" nghttpd --echo-upload -d "$WORK/docroot" "$@" \
        -a 127.0.0.1 "${PORT[nghttpd-tls]}" "$WORK/key.pem" "$WORK/cert.pem"
}

stop_nghttpd() { kill "${PID[nghttpd]}"; }
stop_nghttpd-tls() { kill "${PID[nghttpd-tls]}"; }

run_nginx() {
    cat >"$WORK/nginx.conf" <<CFG
daemon off;
pid $WORK/nginx.pid;
worker_processes 1;
events { worker_connections 1024; }
http {
    access_log off;
    client_body_temp_path $WORK/nginx-body;
    proxy_temp_path $WORK/nginx-proxy;
    fastcgi_temp_path $WORK/nginx-fastcgi;
    uwsgi_temp_path $WORK/nginx-uwsgi;
    scgi_temp_path $WORK/nginx-scgi;
    client_max_body_size 200m;
    proxy_http_version 1.1;
    proxy_buffer_size 64k;
    proxy_buffers 8 64k;
    proxy_busy_buffers_size 128k;
    server {
        listen 127.0.0.1:${PORT[nginx]} http2;
        listen 127.0.0.1:${PORT[nginx-tls]} ssl http2;
        ssl_certificate $WORK/cert.pem;
        ssl_certificate_key $WORK/key.pem;
        root $WORK/docroot;
        location /echo { proxy_pass http://127.0.0.1:${PORT[echo]}; }
        location /app/ { proxy_pass http://127.0.0.1:${PORT[echo]}; }
        location /app/limited {
            client_max_body_size 1m;
            proxy_pass http://127.0.0.1:${PORT[echo]};
        }
    }
}
CFG
    start_server "$WORK/nginx.log" nginx -c "$WORK/nginx.conf" -e "$WORK/nginx-error.log"
}

stop_nginx() { kill -QUIT "${PID[nginx]}"; }
reload_nginx() { renew_workers nginx HUP; }

# A process that becomes another user, as h2o does of its own accord, no longer ends with its parent.
run_h2o() {
    cat >"$WORK/h2o.conf" <<CFG
$(if [ "$(id -u)" -eq 0 ]; then printf 'user: root'; fi)
num-threads: 1
limit-request-body: 150000000
listen:
  host: 127.0.0.1
  port: ${PORT[h2o]}
listen:
  host: 127.0.0.1
  port: ${PORT[h2o-tls]}
  ssl:
    certificate-file: $WORK/cert.pem
    key-file: $WORK/key.pem
hosts:
  default:
    paths:
      /echo:
        proxy.reverse.url: http://127.0.0.1:${PORT[echo]}/echo
      /app:
        proxy.reverse.url: http://127.0.0.1:${PORT[echo]}/app
      /:
        file.dir: $WORK/docroot
CFG
    start_server "$WORK/h2o.log" h2o -c "$WORK/h2o.conf"
}

stop_h2o() { kill "${PID[h2o]}"; }

run_apache() {
    local modules=/usr/lib/apache2/modules module
    {
        for module in mpm_event authz_core alias http2 ssl socache_shmcb proxy proxy_http; do
            printf 'LoadModule %s_module %s/mod_%s.so\n' "$module" "$modules" "$module"
        done
        cat <<CFG
ServerName localhost
ServerRoot $WORK
DefaultRuntimeDir $WORK
PidFile $WORK/apache.pid
ErrorLog $WORK/apache-error.log
User www-data
Group www-data
Listen 127.0.0.1:${PORT[apache]}
Listen 127.0.0.1:${PORT[apache-tls]}
Listen 127.0.0.1:${PORT[apache-window]}
DocumentRoot $WORK/docroot
Protocols h2 h2c http/1.1
H2Direct on
H2EarlyHints on
ProxyPass /echo http://127.0.0.1:${PORT[echo]}/echo
ProxyPass /app/limited !
ProxyPass /app http://127.0.0.1:${PORT[echo]}/app
Redirect 413 /app/limited
<Location /app/early>
    H2PushResource add /style.css
</Location>
<Directory $WORK/docroot>
    Require all granted
</Directory>
<VirtualHost 127.0.0.1:${PORT[apache-tls]}>
    SSLEngine on
    SSLCertificateFile $WORK/cert.pem
    SSLCertificateKeyFile $WORK/key.pem
</VirtualHost>
<VirtualHost 127.0.0.1:${PORT[apache-window]}>
    H2WindowSize 1000000
</VirtualHost>
CFG
    } >"$WORK/apache.conf"
    start_server "$WORK/apache.log" apache2 -D FOREGROUND -f "$WORK/apache.conf"
}

stop_apache() { kill -WINCH "${PID[apache]}"; }
reload_apache() { renew_workers apache USR1; }

workers_of() { cat "/proc/${PID[$1]}/task/${PID[$1]}/children"; }

# renew_workers PROCESS SIGNAL: sends the signal, and waits until no worker of before is left.
renew_workers() {
    local pid before end=$((SECONDS + 20))
    read -r -a before <<<"$(workers_of "$1")"
    kill "-$2" "${PID[$1]}"
    for pid in "${before[@]}"; do
        while [[ " $(workers_of "$1")" == *" $pid "* ]] && [ "$SECONDS" -lt "$end" ]; do
            sleep 0.05
        done
    done
}

# Starts a process on the ports in PORT.
start_process() {
    local name
    "run_$1" || return 1
    PID[$1]=$SERVER_PID
    for name in $(names_of "$1"); do
        wait_for_server "$SERVER_PID" "${PORT[$name]}" || return 1
    done
}

# Somebody may take a port between its choice and its use, so a failed start is tried again.
start_on_free_ports() {
    local try name
    for try in 1 2 3; do
        for name in $(names_of "$1"); do PORT[$name]=$(free_port); done
        if start_process "$1"; then return 0; fi
        stop_server "$SERVER_PID"
    done
    printf 'cannot start %s after %s tries; its log:\n' "$1" "$try" >&2
    cat "$WORK/$1"*.log >&2
    return 1
}

# start_all NAME... : the processes that serve these, and node, which answers behind the others.
start_all() {
    local name process
    PORT[echo]=$(free_port)
    make_certificates
    start_nghttpd || die "cannot start nghttpd: $(cat "$WORK/nghttpd.log")"
    for name in node node-tls "$@"; do
        process=$(process_of "$name")
        if [ -z "${PID[$process]:-}" ]; then start_on_free_ports "$process" || return 1; fi
    done
}

# Waits until the process that was told to end has done so, and kills it after 20 s.
await_end() {
    local pid=${PID[$1]} end=$((SECONDS + 20))
    while kill -0 "$pid" 2>/dev/null && [ "$SECONDS" -lt "$end" ]; do sleep 0.05; done
    kill -KILL "$pid" 2>/dev/null || true
    wait "$pid" 2>/dev/null || true
    forget_server "$pid"
}

# Kills the process of a name at once, so that it sends no GOAWAY; the workers after their master, which
# would start others.
kill_server() {
    local master=${PID[$(process_of "$1")]} workers=() pid end=$((SECONDS + 20))
    read -r -a workers <"/proc/$master/task/$master/children" || true
    kill -KILL "$master"
    for pid in "${workers[@]}"; do kill -KILL "$pid" 2>/dev/null || true; done
    wait "$master" 2>/dev/null || true
    forget_server "$master"
    until [ -z "$(listeners "${PORT[$1]}")" ] || [ "$SECONDS" -gt "$end" ]; do sleep 0.05; done
}
