#!/bin/sh
# Reports a visit to a threatening URL: report.sh URL [THREAT]
status=0
pyxctl report --threat "${2-}" -- "$1" >/dev/null || status=$?
case $status in
  0) echo "logged" ;;
  3) echo "not answered, or not known to be logged: ask again, or look with pyxctl log" >&2 ;;
  *) echo "not logged" >&2 ;;
esac
exit "$status"
