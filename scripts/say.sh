# How the project's commands speak: what they do on standard output, why they end on standard error.

say() {
  printf '%s: %s\n' "${0##*/}" "$*"
}

die() {
  say "$*" >&2
  exit 1
}

# show_help "$@": where a script is asked for its help alone, that is the comment that it begins with.
show_help() {
  [[ ${1-} == -h || ${1-} == --help ]] || return 0
  awk 'NR > 1 { if (!sub(/^# ?/, "")) exit; print }' "scripts/${0##*/}"
  exit 0
}
