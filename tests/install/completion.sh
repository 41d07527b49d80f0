#!/bin/bash
# What bash offers behind nvrhttp's words: completion.sh PREFIX
set -uo pipefail
export LC_ALL=C
source "$1/share/bash-completion/completions/nvrhttp"
program=$1/bin/nvrhttp
failures=0

expect() { # offered word...
    local offered=$1
    shift
    COMP_WORDS=(nvrhttp "$@")
    COMP_CWORD=$#
    _nvrhttp "$program"
    if [ "$(printf '%s\n' "${COMPREPLY[@]}" | sort | tr '\n' ' ')" != "$offered " ]; then
        echo "behind 'nvrhttp $*': ${COMPREPLY[*]}, expected: $offered"
        failures=1
    fi
}

expect "--help --version check console doctor post serve" ""
expect "check console" c
expect "--max-answer --max-data" post http://127.0.0.1/ --max
expect "async client direct sync" post --mode ""
expect "post" post --method p
expect "both console debuglog" console --log ""
expect "$1/share" serve --tls --cert-out "$1/s"
expect "@$1/share" post --data "@$1/s"
exit $failures
