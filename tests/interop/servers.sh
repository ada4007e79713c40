# shellcheck shell=bash
# The servers of scripts/interop, beyond HAProxy and the nghttpd behind it. Sourced after
# scripts/lib/servers.sh, with WORK set.
#
# A name of ALL is a port of a server's process. run_* may be called again after its process was
# killed: it uses the ports in PORT.

ALL=(haproxy haproxy-tls nginx nginx-tls h2o h2o-tls apache apache-tls apache-window node node-tls
    nghttpd nghttpd-tls)
declare -A PORT=() PID=() # by name, and by process

# nghttpd cannot do both plain TCP and TLS.
process_of() { if [[ $1 == nghttpd* ]]; then printf '%s' "$1"; else printf '%s' "${1%%-*}"; fi; }
tls_option() { if [[ $1 == *-tls ]]; then printf -- '--tls'; fi; }

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

run_haproxy() { start_server "$WORK/haproxy.log" haproxy -db -f "$WORK/haproxy.cfg"; }

# It serves the echo behind the others too.
run_node() {
    start_server "$WORK/node.log" node tests/interop/server.js "${PORT[echo]}" "${PORT[node]}" \
        "${PORT[node-tls]}" "$WORK/docroot" "$WORK/both.pem"
}

run_nghttpd() {
    start_server "$WORK/nghttpd.log" nghttpd --no-tls --echo-upload -d "$WORK/docroot" \
        -a 127.0.0.1 "${PORT[nghttpd]}"
}

run_nghttpd-tls() {
    start_server "$WORK/nghttpd-tls.log" nghttpd --echo-upload -d "$WORK/docroot" \
        -a 127.0.0.1 "${PORT[nghttpd-tls]}" "$WORK/key.pem" "$WORK/cert.pem"
}

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
    client_max_body_size 10m;
    server {
        listen 127.0.0.1:${PORT[nginx]} http2;
        listen 127.0.0.1:${PORT[nginx-tls]} ssl http2;
        ssl_certificate $WORK/cert.pem;
        ssl_certificate_key $WORK/key.pem;
        root $WORK/docroot;
        location /echo { proxy_pass http://127.0.0.1:${PORT[echo]}; }
    }
}
CFG
    start_server "$WORK/nginx.log" nginx -c "$WORK/nginx.conf" -e "$WORK/nginx-error.log"
}

# A process that becomes another user, as h2o does of its own accord, no longer ends with its parent.
run_h2o() {
    cat >"$WORK/h2o.conf" <<CFG
$(if [ "$(id -u)" -eq 0 ]; then printf 'user: root'; fi)
num-threads: 1
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
      /:
        file.dir: $WORK/docroot
CFG
    start_server "$WORK/h2o.log" h2o -c "$WORK/h2o.conf"
}

run_apache() {
    local modules=/usr/lib/apache2/modules module
    {
        for module in mpm_event authz_core http2 ssl socache_shmcb proxy proxy_http; do
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
ProxyPass /echo http://127.0.0.1:${PORT[echo]}/echo
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

# start_all NAME... : the processes that serve these.
start_all() {
    local process
    PORT[echo]=$(free_port)
    start_servers || return 1
    chmod 644 "$WORK/cert.pem" "$WORK/key.pem"
    PORT[haproxy]=$PLAIN_PORT
    PORT[haproxy-tls]=$TLS_PORT
    PID[haproxy]=$SERVER_PID
    for process in node nginx h2o apache nghttpd nghttpd-tls; do
        if [ "$process" = node ] || [[ " $*" == *" $process"* ]]; then
            start_on_free_ports "$process" || return 1
        fi
    done
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
