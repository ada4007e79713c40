# shellcheck shell=bash
# What scripts/interop makes of the outcomes: a table with numbered remarks, and the comparison with
# tests/interop/expected.txt. Sourced after checks.sh, with the variables that scripts/interop sets.
#
# shellcheck disable=SC2154

# kind_of SERVER CHECK: what the outcome has in common with others of the check: all but its figures.
# A limit of the server's own, which is what NO_ERROR tells of, is like no other server's.
kind_of() {
    local got
    got=$(result "$1" "$2")
    printf '%s: %s' "$2" "$got" | sed 's/ after [^;]*//g'
    if [[ $got == *NO_ERROR* ]]; then printf ' of %s' "$(process_of "$1")"; fi
}

# remark_on SERVER CHECK: the outcome, with the figures of all servers whose outcomes are of its kind.
remark_on() {
    local server got logs=()
    got=$(result "$1" "$2")
    if [[ $got == *"; ended by "* ]]; then
        for server in "${servers[@]}"; do
            if [ "$(kind_of "$server" "$2")" = "$(kind_of "$1" "$2")" ]; then
                logs+=("$WORK/$server.$2.frames")
            fi
        done
        got=${got%%; ended by *}$(ends "${logs[@]}")
    fi
    printf '%s' "${got#ok; }"
}

# The table, with a number for what is not just "ok"; then the remarks that the numbers stand for.
print_table() {
    local server check got kind mark
    local -A number=()
    local remarks=()
    printf '| |'
    printf ' %s |' "${CHECKS[@]}"
    printf '\n|---|'
    printf -- '---|%.0s' "${CHECKS[@]}"
    printf '\n'
    for server in "${servers[@]}"; do
        printf '| %s |' "$server"
        for check in "${CHECKS[@]}"; do
            got=$(result "$server" "$check")
            mark=$got
            if [ "$got" != ok ] && [ "$got" != - ]; then
                kind=$(kind_of "$server" "$check")
                if [ -z "${number[$kind]:-}" ]; then
                    remarks+=("$(remark_on "$server" "$check")")
                    number[$kind]=${#remarks[@]}
                fi
                mark="**no** (${number[$kind]})"
                if [[ $got == ok* ]]; then mark="ok (${number[$kind]})"; fi
            fi
            printf ' %s |' "$mark"
        done
        printf '\n'
    done
    printf '\n'
    for mark in "${!remarks[@]}"; do printf '%s. %s\n' "$((mark + 1))" "${remarks[$mark]}"; done
}

# Prints the regular expression for an outcome: the file's, else "ok", else, at a server that does
# not even answer a GET, "-".
expected() {
    awk -v form="$form" -v server="$1" -v check="$2" -v get="$(result "$1" GET)" '
        /^#|^$/ || ($1 != form && $1 != "any") || $3 != check { next }
        $2 == server || $2 == "any" && !found {
            found = $2 == server ? 2 : 1
            want = $0
            sub(/^[^ ]+ +[^ ]+ +[^ ]+ +/, "", want)
            if (found == 2) exit
        }
        END { print get !~ /^ok/ && check != "GET" ? "-" : found ? want : "ok" }
    ' tests/interop/expected.txt
}

# Prints the outcomes that differ from the expected.
differences() {
    local server check got want
    for server in "${servers[@]}"; do
        for check in "${CHECKS[@]}"; do
            got=$(result "$server" "$check")
            want=$(expected "$server" "$check")
            [[ $got =~ ^($want)$ ]] ||
                printf '%s, %s: expected "%s", got "%s"\n' "$server" "$check" "$want" "$got"
        done
    done
}

# The page for a reader, from its template.
write_page() {
    local line list
    list=$(versions | paste -s -d, | sed 's/,/, /g')
    while IFS= read -r line; do
        case "$line" in
            '<!-- table -->') print_table ;;
            *) printf '%s\n' "${line//<!-- versions -->/$list}" ;;
        esac
    done <tests/interop/interop.md.in
}
