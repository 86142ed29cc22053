# Completion of pyxctl for bash. The program knows its verbs and options by itself.
_pyxctl() {
  mapfile -t COMPREPLY < <("${COMP_WORDS[0]}" complete -- "${COMP_WORDS[@]:1:COMP_CWORD}" 2>/dev/null | cut -f 1)
}
# Where it knows nothing, a file may stand.
complete -o default -F _pyxctl pyxctl
