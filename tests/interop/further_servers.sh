# shellcheck shell=bash
# More servers of scripts/interop, for the standard edition: `scripts/install-deps --interop` installs
# them, and one that is missing is not measured. Sourced after servers.sh.
#
# shellcheck disable=SC2153,SC2154

# NAME:PROGRAM, where the program's presence tells of the server's.
FURTHER=(nghttpx:nghttpx lighttpd:lighttpd caddy:caddy varnish:varnishd go:go
    tomcat:/usr/share/tomcat10/bin/bootstrap.jar jetty:/usr/share/jetty9/start.jar
    hypercorn:/usr/bin/hypercorn)

missing_further() {
    local pair
    for pair in "${FURTHER[@]}"; do
        command -v "${pair#*:}" >/dev/null || [ -e "${pair#*:}" ] || printf '%s\n' "${pair%%:*}"
    done
}

# Prints the version of each that is installed.
further_versions() {
    local name
    for name in "${FURTHER[@]%%:*}"; do
        if [[ " ${ALL[*]} " == *" $name "* ]]; then "version_$name"; fi
    done
}

version_nghttpx() { nghttpx --version | sed 's,nghttpx nghttp2/,nghttpx ,'; }

run_nghttpx() {
    start_server "$WORK/nghttpx.log" nghttpx --conf=/dev/null --workers=1 \
        -f"127.0.0.1,${PORT[nghttpx]};no-tls" -f"127.0.0.1,${PORT[nghttpx-tls]}" \
        -b"127.0.0.1,${PORT[echo]}" --errorlog-file=/dev/stderr \
        "$WORK/key.pem" "$WORK/cert.pem"
}

stop_nghttpx() { kill -QUIT "${PID[nghttpx]}"; }
reload_nghttpx() { renew_workers nghttpx HUP; }

version_lighttpd() { lighttpd -v | sed -n 's,^lighttpd/\([^ ]*\).*,lighttpd \1,p'; }

run_lighttpd() {
    cat >"$WORK/lighttpd.conf" <<CFG
server.modules = ("mod_openssl", "mod_proxy")
server.feature-flags = ("server.h2proto" => "enable", "server.h2c" => "enable")
server.document-root = "$WORK/docroot"
server.bind = "127.0.0.1"
server.port = ${PORT[lighttpd]}
server.max-request-field-size = 65535
server.upload-dirs = ("$WORK")
\$SERVER["socket"] == "127.0.0.1:${PORT[lighttpd-tls]}" {
    ssl.engine = "enable"
    ssl.pemfile = "$WORK/both.pem"
}
\$HTTP["url"] =~ "^/(echo|app/)" {
    proxy.server = ("" => (("host" => "127.0.0.1", "port" => ${PORT[echo]})))
}
\$HTTP["url"] =~ "^/app/limited" { server.max-request-size = 1000 }
CFG
    start_server "$WORK/lighttpd.log" lighttpd -D -f "$WORK/lighttpd.conf"
}

stop_lighttpd() { kill -INT "${PID[lighttpd]}"; }

version_caddy() { caddy version | sed 's/^v\{0,1\}/Caddy /; s/ h1:.*//'; }

run_caddy() {
    cat >"$WORK/Caddyfile" <<CFG
{
	admin unix/$WORK/caddy.socket
	auto_https off
	servers {
		protocols h1 h2 h2c
	}
}
(site) {
	bind 127.0.0.1
	root * $WORK/docroot
	handle /echo {
		reverse_proxy 127.0.0.1:${PORT[echo]}
	}
	handle /app/* {
		reverse_proxy 127.0.0.1:${PORT[echo]}
	}
	handle {
		file_server
	}
}
http://:${PORT[caddy]} {
	import site
}
https://:${PORT[caddy-tls]} {
	tls $WORK/cert.pem $WORK/key.pem
	import site
}
CFG
    start_server "$WORK/caddy.log" env XDG_DATA_HOME="$WORK" XDG_CONFIG_HOME="$WORK" \
        caddy run --adapter caddyfile --config "$WORK/Caddyfile"
}

stop_caddy() { kill "${PID[caddy]}"; }
reload_caddy() {
    caddy reload --force --adapter caddyfile --config "$WORK/Caddyfile" \
        --address "unix/$WORK/caddy.socket" >>"$WORK/caddy.log" 2>&1 || true
}

version_varnish() {
    varnishd -V 2>&1 | sed -n 's/^varnishd (varnish-\([^ )]*\).*/Varnish \1/p'
    hitch --version 2>&1 | sed -n 's/^hitch /hitch /p'
}

# Plain only; hitch has its TLS.
run_varnish() {
    cat >"$WORK/varnish.vcl" <<VCL
vcl 4.1;
backend default { .host = "127.0.0.1"; .port = "${PORT[echo]}"; }
sub vcl_recv {
    if (req.url == "/app/limited") { return (synth(413)); }
    return (pass);
}
VCL
    start_server "$WORK/varnish.log" varnishd -F -a "127.0.0.1:${PORT[varnish]}" \
        -f "$WORK/varnish.vcl" -n "$WORK/varnish" -j none -p feature=+http2 \
        -p http_resp_hdr_len=32k -p http_resp_size=64k -p workspace_backend=128k \
        -p workspace_client=128k
}

stop_varnish() { kill "${PID[varnish]}"; }

run_varnish-tls() {
    local user=()
    if [ "$(id -u)" -eq 0 ]; then user=(--user=nobody); fi # it refuses to work as root
    start_server "$WORK/varnish-tls.log" hitch --backend="[127.0.0.1]:${PORT[varnish]}" \
        --frontend="[127.0.0.1]:${PORT[varnish-tls]}" --alpn-protos=h2,http/1.1 --workers=1 \
        --quiet "${user[@]}" "$WORK/both.pem"
}

stop_varnish-tls() { kill "${PID[varnish-tls]}"; }

version_go() { go version | sed 's/^go version go\([^ ]*\).*/Go \1/'; }

run_go() {
    GO111MODULE=off GOPATH=/usr/share/gocode GOCACHE=$PWD/build/go-cache GOFLAGS=-p=2 \
        go build -o "$WORK/go-server" tests/interop/further/server.go >"$WORK/go.log" 2>&1 ||
        die "cannot build: $(cat "$WORK/go.log")"
    start_server "$WORK/go.log" "$WORK/go-server" "127.0.0.1:${PORT[go]}" \
        "127.0.0.1:${PORT[go-tls]}" "$WORK/docroot" "$WORK/cert.pem" "$WORK/key.pem"
}

stop_go() { kill "${PID[go]}"; }

# java_server LOG ARGUMENT... : on IPv4, so that its ports are seen.
java_server() {
    start_server "$1" java -Djava.net.preferIPv4Stack=true -Djava.io.tmpdir="$WORK" -Xmx512m "${@:2}"
}

version_tomcat() {
    dpkg-query -W -f '${Version}\n' tomcat10-common | sed 's/^/Tomcat /; s/-.*//'
}

run_tomcat() {
    local base=$WORK/tomcat http2
    http2='<UpgradeProtocol className="org.apache.coyote.http2.Http2Protocol"/>'
    mkdir -p "$base/conf" "$base/logs" "$base/work" "$base/ROOT/WEB-INF/classes"
    javac -cp "/usr/share/tomcat10/lib/*" -d "$base/ROOT/WEB-INF/classes" \
        tests/interop/further/App.java >"$WORK/tomcat.log" 2>&1 ||
        die "cannot compile: $(cat "$WORK/tomcat.log")"
    cat >"$base/ROOT/WEB-INF/web.xml" <<XML
<web-app xmlns="https://jakarta.ee/xml/ns/jakartaee" version="5.0">
  <servlet><servlet-name>app</servlet-name><servlet-class>App</servlet-class></servlet>
  <servlet>
    <servlet-name>files</servlet-name>
    <servlet-class>org.apache.catalina.servlets.DefaultServlet</servlet-class>
  </servlet>
  <servlet-mapping>
    <servlet-name>app</servlet-name>
    <url-pattern>/app/*</url-pattern>
    <url-pattern>/echo</url-pattern>
  </servlet-mapping>
  <servlet-mapping><servlet-name>files</servlet-name><url-pattern>/</url-pattern></servlet-mapping>
</web-app>
XML
    cat >"$base/conf/server.xml" <<XML
<Server port="-1">
  <Service name="Catalina">
    <Connector address="127.0.0.1" port="${PORT[tomcat]}" maxPostSize="-1" maxHttpHeaderSize="65536">
      $http2
    </Connector>
    <Connector address="127.0.0.1" port="${PORT[tomcat-tls]}" maxPostSize="-1"
               maxHttpHeaderSize="65536" SSLEnabled="true" scheme="https" secure="true">
      $http2
      <SSLHostConfig>
        <Certificate certificateFile="$WORK/cert.pem" certificateKeyFile="$WORK/key.pem"/>
      </SSLHostConfig>
    </Connector>
    <Engine name="Catalina" defaultHost="localhost">
      <Host name="localhost" autoDeploy="false" deployOnStartup="false">
        <Context path="" docBase="$base/ROOT">
          <Resources>
            <PreResources className="org.apache.catalina.webresources.DirResourceSet"
                          base="$WORK/docroot" webAppMount="/"/>
          </Resources>
        </Context>
      </Host>
    </Engine>
  </Service>
</Server>
XML
    java_server "$WORK/tomcat.log" -Dcatalina.home=/usr/share/tomcat10 -Dcatalina.base="$base" \
        -cp /usr/share/tomcat10/bin/bootstrap.jar:/usr/share/tomcat10/bin/tomcat-juli.jar \
        org.apache.catalina.startup.Bootstrap start
}

stop_tomcat() { kill "${PID[tomcat]}"; }

version_jetty() { dpkg-query -W -f '${Version}\n' jetty9 | sed 's/^/Jetty /; s/-.*//'; }

run_jetty() {
    local classes=$WORK/jetty/classes path='/usr/share/jetty9/lib/*:/usr/share/jetty9/lib/http2/*'
    path+=':/usr/share/java/jetty9-alpn-java-server.jar'
    mkdir -p "$classes"
    sed 's/jakarta\.servlet/javax.servlet/' tests/interop/further/App.java >"$WORK/jetty/App.java"
    javac -cp "$path" -d "$classes" tests/interop/further/Jetty.java "$WORK/jetty/App.java" \
        >"$WORK/jetty.log" 2>&1 || die "cannot compile: $(cat "$WORK/jetty.log")"
    openssl pkcs12 -export -in "$WORK/cert.pem" -inkey "$WORK/key.pem" -passout pass:interop \
        -out "$WORK/jetty/both.p12"
    java_server "$WORK/jetty.log" -cp "$classes:$path" Jetty "${PORT[jetty]}" "${PORT[jetty-tls]}" \
        "$WORK/docroot" "$WORK/jetty/both.p12" interop
}

stop_jetty() { kill "${PID[jetty]}"; }

version_hypercorn() {
    dpkg-query -W -f '${Version}\n' python3-hypercorn | sed 's/^/Hypercorn /; s/-.*//'
}

run_hypercorn() {
    start_server "$WORK/hypercorn.log" env DOCROOT="$WORK/docroot" PYTHONPATH=tests/interop/further \
        PYTHONDONTWRITEBYTECODE=1 /usr/bin/python3 -m hypercorn \
        --insecure-bind "127.0.0.1:${PORT[hypercorn]}" --bind "127.0.0.1:${PORT[hypercorn-tls]}" \
        --certfile "$WORK/cert.pem" --keyfile "$WORK/key.pem" asgi:app
}

stop_hypercorn() { kill "${PID[hypercorn]}"; }
