# Fish completion for velmoctl, which tells itself what can stand where; files are the shell's own affair.

function __velmoctl_complete
    set -l words (commandline --tokenize --cut-at-cursor --current-process) (commandline --current-token --cut-at-cursor)
    velmoctl complete -- $words[2..-1] 2>/dev/null
end

complete --command velmoctl --arguments '(__velmoctl_complete)'
