# Bash completion for velmoctl, which tells itself what can stand where; files are the shell's own affair.
# shellcheck shell=bash

_velmoctl() {
    local word=${COMP_WORDS[COMP_CWORD]} candidate
    local -a words=("${COMP_WORDS[@]:1:COMP_CWORD}")
    COMPREPLY=()
    # Bash takes "--host=db1" for three words.
    if [[ $word == = ]]; then
        word=
        words=("${COMP_WORDS[@]:1:COMP_CWORD-2}" "${COMP_WORDS[COMP_CWORD - 1]}=")
    elif ((COMP_CWORD > 2)) && [[ ${COMP_WORDS[COMP_CWORD - 1]} == = ]]; then
        words=("${COMP_WORDS[@]:1:COMP_CWORD-3}" "${COMP_WORDS[COMP_CWORD - 2]}=$word")
    fi
    while IFS= read -r candidate; do
        [[ ${words[-1]} != --*=* ]] || candidate=${candidate#*=}
        [[ $candidate != *[!A-Za-z0-9_./:,=@%+-]* ]] || candidate=$(printf %q "$candidate")
        COMPREPLY+=("$candidate")
    done < <(velmoctl complete -- "${words[@]}" 2>/dev/null)
}

complete -o default -F _velmoctl velmoctl
