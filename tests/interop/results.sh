# shellcheck shell=bash
# What scripts/interop makes of the outcomes: a table with numbered remarks, and the comparison with
# the files of expected outcomes. Sourced after checks.sh, with the variables that scripts/interop
# sets.
#
# shellcheck disable=SC2154

# kind_of SERVER CHECK: what the outcome has in common with others of the check: all but its figures.
# A limit of the server's own, which is what NO_ERROR tells of, is like no other server's.
kind_of() {
    local got
    got=$(result "$1" "$2")
    if [ "$edition" = standard ]; then
        printf '%s' "$got" | sed -E 's/stream [0-9]+/stream/g; s/length [0-9]+/length/g'
        return
    fi
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
                logs+=("$OUT/$server.$2.frames")
            fi
        done
        got=${got%%; ended by *}$(ends "${logs[@]}")
    fi
    printf '%s' "${got#ok; }"
}

# set_mark SERVER CHECK: puts into `mark` what the table says: "ok", "-", or one of "ok", "no" and, for
# a bad outcome of the standard edition that is the server's doing, "n/a", with a remark's number.
declare -A number=() # of a remark, by edition and kind of outcome
remarks=()
set_mark() {
    local got kind word='**no**'
    got=$(result "$1" "$2")
    mark=$got
    if [ "$got" = ok ] || [ "$got" = - ]; then return; fi
    kind="$edition $(kind_of "$1" "$2")"
    if [ -z "${number[$kind]:-}" ]; then
        remarks+=("$(remark_on "$1" "$2")")
        number[$kind]=${#remarks[@]}
    fi
    if [[ $got == ok* ]]; then
        word=ok
    elif [ "$edition" = standard ] && is_expected "$1" "$2"; then
        word=n/a
    fi
    mark="$word (${number[$kind]})"
}

# print_row CHECK: the edition's outcomes; one a server where all its ports agree, else one a port.
print_row() {
    local family name mark marks distinct nothing
    printf '| %s | %s |' "$1" "$edition"
    for family in "${families[@]}"; do
        marks=()
        nothing=
        if [[ " ${missing[*]} " == *" $family "* ]]; then nothing="not measured"; fi
        for name in "${servers[@]}"; do
            if [ "${name%%-*}" != "$family" ]; then continue; fi
            set_mark "$name" "$1"
            marks+=("$mark")
        done
        mapfile -t distinct < <(printf '%s\n' "${marks[@]}" | sort -u)
        if [ "${#distinct[@]}" -eq 1 ]; then marks=("${distinct[0]:-$nothing}"); fi
        printf ' %s |' "$(printf '%s, ' "${marks[@]}" | sed 's/, $//')"
    done
    printf '\n'
}

# A line for each check and edition; then the remarks that the numbers stand for.
print_table() {
    local check families index
    number=()
    remarks=()
    mapfile -t families < <(printf '%s\n' "${wanted[@]%%-*}" "${missing[@]}" | awk '!seen[$0]++')
    printf '| check | edition |'
    printf ' %s |' "${families[@]}"
    printf '\n|---|---|'
    printf -- '---|%.0s' "${families[@]}"
    printf '\n'
    while IFS= read -r check; do
        for edition in "${editions[@]}"; do
            use_edition "$edition"
            if [[ " ${CHECKS[*]} " == *" $check "* ]]; then print_row "$check"; fi
        done
    done < <(all_checks)
    printf '\n'
    for index in "${!remarks[@]}"; do printf '%s. %s\n' "$((index + 1))" "${remarks[$index]}"; done
}

# The editions' checks, the standard edition's first.
all_checks() {
    if [[ ${editions[*]} == exact ]]; then
        printf '%s\n' "${EXACT_CHECKS[@]}"
    else
        printf '%s\n' "${STANDARD_CHECKS[@]}" "${EXACT_CHECKS[@]}" | awk '!seen[$0]++'
    fi
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
    ' "$EXPECTED"
}

is_expected() {
    local want
    want=$(expected "$1" "$2")
    [[ $(result "$1" "$2") =~ ^($want)$ ]]
}

# Prints the edition's outcomes that differ from the expected.
differences() {
    local server check
    for server in "${servers[@]}"; do
        for check in "${CHECKS[@]}"; do
            is_expected "$server" "$check" || printf '%s edition, %s, %s: expected "%s", got "%s"\n' \
                "$edition" "$server" "$check" "$(expected "$server" "$check")" \
                "$(result "$server" "$check")"
        done
    done
}

# The page for a reader, from its template.
write_page() {
    local line list
    list=$({ versions && further_versions; } | paste -s -d, | sed 's/,/, /g')
    while IFS= read -r line; do
        case "$line" in
            '<!-- table -->') print_table ;;
            *) printf '%s\n' "${line//<!-- versions -->/$list}" ;;
        esac
    done <tests/interop/interop.md.in
}
