# How the project's commands speak: what they do on standard output, why they end on standard error.

say() {
  printf '%s: %s\n' "${0##*/}" "$*"
}

die() {
  say "$*" >&2
  exit 1
}
