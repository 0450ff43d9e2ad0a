# Bash completion for velmoctl: commands, their options, and the names of the manager's servers.
# shellcheck shell=bash

_velmoctl_options() { # COMMAND
    local options="--timeout --json --no-color --help --version"
    case $1 in
    register | lint) ;;
    *) options+=" --host --port" ;;
    esac
    case $1 in
    list) options+=" --names" ;;
    uninstall) options+=" --delete-files --dry-run --yes" ;;
    watch) options+=" --interval --count" ;;
    esac
    echo "$options"
}

_velmoctl() {
    local word=${COMP_WORDS[COMP_CWORD]} command="" name i
    local -a where=()
    COMPREPLY=()
    for ((i = 1; i < COMP_CWORD; i++)); do
        case ${COMP_WORDS[i]} in
        --host | --port)
            where+=("${COMP_WORDS[i]}" "${COMP_WORDS[i + 1]}")
            ((++i))
            ;;
        --timeout | --interval | --count) ((++i)) ;;
        -*) ;;
        *) command=${command:-${COMP_WORDS[i]}} ;;
        esac
    done
    ((i == COMP_CWORD)) || return 0 # the value of an option
    if [[ $word == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$(_velmoctl_options "$command")" -- "$word")
        return
    fi
    case $command in
    '')
        mapfile -t COMPREPLY < <(compgen -W "info list status start uninstall cluster discover register watch lint
            shell" -- "$word")
        ;;
    status | start | uninstall | cluster)
        while IFS= read -r name; do
            [[ $name != "$word"* ]] || COMPREPLY+=("$(printf %q "$name")")
        done < <(velmoctl "${where[@]}" --timeout 2 list --names 2>/dev/null)
        ;;
    lint | register) mapfile -t COMPREPLY < <(compgen -f -- "$word") ;;
    esac
}

complete -F _velmoctl velmoctl
