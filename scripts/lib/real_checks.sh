# shellcheck shell=bash
# The checks of a real server that scripts/demo and tests/real share. Callers source servers.sh,
# set WORK and H2REQUEST, start the servers, and look at FAILED_CHECKS in the end.

FAILED_CHECKS=0

digest() { sha256sum | cut -d' ' -f1; }

# Puts what the checks ask for into the servers' directory.
make_documents() {
    printf 'Hello over HTTP/2\n' >"$WORK/docroot/hello.txt"
    head -c 10000000 /dev/urandom >"$WORK/docroot/10mb.bin"
    head -c 1000000 /dev/urandom >"$WORK/upload.bin"
}

# verdict GOT EXPECTED WHAT
verdict() {
    if [ "$1" = "$2" ]; then
        echo "  ok: $3 ($1)"
    else
        echo "  FAILED: $3: expected '$2', got '$1'"
        FAILED_CHECKS=$((FAILED_CHECKS + 1))
    fi
}

# request ARGS... : shows the command and runs it. Its output goes to $WORK/answer.
request() {
    local code=0
    echo "\$ h2request $*"
    "$H2REQUEST" "$@" >"$WORK/answer" || code=$?
    if grep -qP '[^\t\n -~]' "$WORK/answer"; then
        echo "  | $(wc -c <"$WORK/answer") bytes, not text"
    else
        sed 's/^/  | /' "$WORK/answer"
    fi
    verdict "$code" 0 "exit code"
}

# The head and the body that -i has printed.
answer_head() { sed '/^$/,$d' "$WORK/answer"; }
answer_body() { sed '1,/^$/d' "$WORK/answer"; }

# In each of the following: PORT [OPTION].

check_get() {
    local port=$1
    shift
    request --timeout 60000 "$@" -i 127.0.0.1 "$port" /hello.txt
    verdict "$(head -1 "$WORK/answer")" "status: 200" "status"
    verdict "$(answer_body)" "Hello over HTTP/2" "body"
}

# After check_get. All response headers arrive only from a server that does not Huffman-code them.
check_all_headers() {
    verdict "$(answer_head | grep -cE '^(server|date|content-length|last-modified): .')" 4 \
        "server, date, content-length and last-modified arrived"
}

# The body is a stream to the client: it comes out of a pipe.
check_post() {
    local port=$1
    shift
    echo "\$ cat upload.bin |"
    request --timeout 60000 "$@" -X POST --data-file - 127.0.0.1 "$port" /echo \
        < <(cat "$WORK/upload.bin")
    verdict "$(digest <"$WORK/answer")" "$(digest <"$WORK/upload.bin")" \
        "SHA-256 of the 1 MB that came back"
}

check_delete() {
    local port=$1
    shift
    request --timeout 60000 "$@" -i -X DELETE 127.0.0.1 "$port" /hello.txt
    verdict "$(head -1 "$WORK/answer")" "status: 200" "status"
    verdict "$(answer_body)" "Hello over HTTP/2" "body"
}

check_ten_gets() {
    local port=$1
    shift
    request --timeout 60000 "$@" --repeat 10 127.0.0.1 "$port" /hello.txt
    verdict "$(sort "$WORK/answer" | uniq -c | tr -s ' ')" " 10 Hello over HTTP/2" \
        "the answers, counted"
}

check_download() {
    local port=$1
    shift
    request --timeout 60000 "$@" 127.0.0.1 "$port" /10mb.bin
    verdict "$(digest <"$WORK/answer")" "$(digest <"$WORK/docroot/10mb.bin")" \
        "SHA-256 of the 10 MB"
}

check_blocking() {
    local port=$1
    shift
    request --timeout 60000 "$@" --blocking 127.0.0.1 "$port" /hello.txt
    verdict "$(cat "$WORK/answer")" "Hello over HTTP/2" "body from the blocking call"
}
