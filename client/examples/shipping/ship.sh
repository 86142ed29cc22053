#!/bin/sh
# Ships the threat log with anything that reads lines from its standard input, here logger (Debian package bsdutils):
# ship.sh COLLECTOR PORT [CURSOR_FILE]
#
# Each record is one message of RFC 5424 over TCP. When the shipper ends, so does pyxctl; started again, it goes on
# behind what it had handed over.
set -eu
cursor=${3-/var/lib/pyx-export/cursor}
pyxctl follow --output ndjson --cursor-file "$cursor" |
  logger --server "$1" --port "$2" --tcp --octet-count --rfc5424=notq --size 64KiB --tag pyxctl
