#!/bin/sh
# Makes a manual page of one of the documents: manual.sh DOCUMENT NAME SECTION SUMMARY OUT VERSION DATE
#
# The document's title becomes the page's name, and what is code stands out in bold, as manual pages have it.
set -eu
{
  printf '## Name\n\n%s - %s\n\n' "$2" "$4"
  tail -n +2 "$1"
} | lowdown -s -tman -M "title=$2" -M "section=$3" -M shiftheadinglevelby=-1 -M "source=$6" -M "date=$7" |
  sed -e 's/\\fC/\\fB/g' -e '/^\.SH$/{n;s/.*/\U&/;n;/^\.LP$/d}' >"$5"
