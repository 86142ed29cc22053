# Completion of pyxctl for fish. The program knows its verbs and options by itself; where it knows nothing, a file may
# stand.
function __pyxctl_complete
    set -l words (commandline -opc) (commandline -ct)
    $words[1] complete -- $words[2..-1] 2>/dev/null
end
complete -c pyxctl -f -n 'test (count (__pyxctl_complete)) -gt 0' -a '(__pyxctl_complete)'
