# SPDX-License-Identifier: MIT
# Completion of runeflow for fish. The command itself says what may stand at the cursor.

function __runeflow_complete
    set -l token (commandline -ct)
    set -l before '' # what stands before the last word of a query whose quote is still open
    if set -l parts (string match -r '^[\'"]((?:.*\s)?)(\S*)$' -- $token)
        set before $parts[2]
        set token $parts[3]
    end
    set -l words (commandline -opc)
    set -l lines ($words[1] complete -- $words[2..] $token 2>/dev/null)
    test (count $lines) -gt 0; or return
    for line in $lines[2..]
        echo $before$line
    end
    test $lines[1] = files; and __fish_complete_path (commandline -ct)
end

complete -c runeflow -f -a '(__runeflow_complete)'
