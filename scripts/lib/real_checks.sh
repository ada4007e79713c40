# shellcheck shell=bash
# The checks of a real server that scripts/demo and tests/real share. Callers source servers.sh,
# set WORK and H2REQUEST, and start the servers.

FAILED_CHECKS=0

digest() { sha256sum | cut -d' ' -f1; }

# Puts what the checks ask for into the servers' directory.
make_documents() {
    printf 'Hello over HTTP/2\n' >"$WORK/docroot/hello.txt"
    head -c 10000000 /dev/urandom >"$WORK/docroot/10mb.bin"
    head -c 1000000 /dev/urandom >"$WORK/upload.bin"
}

verdict() {
    if [ "$1" = "$2" ]; then
        echo "  ok: $3"
    else
        echo "  FAILED: $3: expected $2, got $1"
        FAILED_CHECKS=$((FAILED_CHECKS + 1))
    fi
}

# request ARGS... : runs h2request and shows how. Its output goes to $WORK/answer, its exit code
# to CODE.
request() {
    echo "\$ h2request $*"
    CODE=0
    "$H2REQUEST" --timeout 60000 "$@" >"$WORK/answer" || CODE=$?
}

show_answer() { sed 's/^/  | /' "$WORK/answer"; }

# check_get PORT [OPTION]: one GET whose head and body are shown and compared.
check_get() {
    local port=$1
    shift
    request -i "$@" 127.0.0.1 "$port" /hello.txt
    show_answer
    verdict "$CODE" 0 "exit code"
    verdict "$(head -1 "$WORK/answer")" "status: 200" "status"
    verdict "$(tail -1 "$WORK/answer")" "Hello over HTTP/2" "body"
}

# All response headers arrive only from a server that does not Huffman-code them.
check_all_headers() {
    verdict "$(grep -cE '^(server|date|content-length|last-modified): .' "$WORK/answer")" 4 \
        "server, date, content-length and last-modified arrived"
}

check_post() {
    local port=$1
    shift
    request -X POST --data-file "$WORK/upload.bin" "$@" 127.0.0.1 "$port" /echo
    verdict "$CODE" 0 "exit code"
    verdict "$(digest <"$WORK/answer")" "$(digest <"$WORK/upload.bin")" "digest of the 1 MB that came back"
}

check_delete() {
    local port=$1
    shift
    request -i -X DELETE "$@" 127.0.0.1 "$port" /hello.txt
    show_answer
    verdict "$CODE" 0 "exit code"
    verdict "$(head -1 "$WORK/answer")" "status: 200" "status"
}

check_ten_gets() {
    local port=$1
    shift
    request --repeat 10 "$@" 127.0.0.1 "$port" /hello.txt
    show_answer
    verdict "$CODE" 0 "exit code"
    verdict "$(grep -c '^Hello over HTTP/2$' "$WORK/answer")" 10 "answers on one connection"
}

check_download() {
    local port=$1
    shift
    request "$@" 127.0.0.1 "$port" /10mb.bin
    verdict "$CODE" 0 "exit code"
    verdict "$(digest <"$WORK/answer")" "$(digest <"$WORK/docroot/10mb.bin")" "digest of the 10 MB"
}
