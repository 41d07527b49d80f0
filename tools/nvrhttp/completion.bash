# Completion of nvrhttp's command line in bash. The words come from the program's own help.

_nvrhttp()
{
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
    local commands command help words=
    commands=$("$1" --help 2>/dev/null | sed -n '/^Subcommands:/,/^$/s/^  \([a-z]\+\) .*/\1/p')
    command=$(printf '%s\n' "${COMP_WORDS[@]:1:COMP_CWORD-1}" | grep -m 1 -xF "$commands")
    # shellcheck disable=SC2086 # no word without a command
    help=$("$1" $command --help 2>/dev/null)

    case $previous in
        --cert-out) mapfile -t COMPREPLY < <(compgen -f -- "$current") && return ;;
        --data) mapfile -t COMPREPLY < <(compgen -P @ -f -- "${current#@}") && return ;;
        -*) words=$(sed -n "s/^  $previous .*{\(.*\)}.*/\1/p" <<<"$help" | tr ',' '\n') ;;
    esac
    if [ -z "$words" ]; then
        words=$(sed -n 's/^  \(-[a-z],\)\?\(--[a-z-]\+\) .*/\2/p' <<<"$help")
        [ -n "$command" ] || words+=$'\n'$commands
    fi
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "$current")
}
complete -o default -F _nvrhttp nvrhttp
