# SPDX-License-Identifier: MIT
# Completion of runeflow for fish. The command itself says what may stand at the cursor.

function __runeflow_complete
    set -l words (commandline -opc) (commandline -ct)
    set -l lines ($words[1] complete -- $words[2..] 2>/dev/null)
    test (count $lines) -gt 0; or return
    string join \n -- $lines[2..]
    test $lines[1] = files; and __fish_complete_path (commandline -ct)
end

complete -c runeflow -f -a '(__runeflow_complete)'
