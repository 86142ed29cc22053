#!/bin/bash
# Ships the threat log with anything that reads lines from its standard input, here logger (Debian package bsdutils):
# ship.sh COLLECTOR PORT [CURSOR_FILE]
#
# Each record is one message of RFC 5424 over TCP. When the shipper ends, so does pyxctl; started again, it goes on
# behind what it had handed over. The log keeps as many records as its max_file_size says: what comes faster than that
# between two looks (--interval) is gone before it is shipped. What the pipe between them holds when the shipper ends is
# lost, too: through a file, as in rsyslog.conf, nothing is. As a service, let the service manager end all its processes.
set -euo pipefail
cursor=${3-/var/lib/pyx-export/cursor}
mkdir -p "$(dirname "$cursor")"
pyxctl follow --output ndjson --cursor-file "$cursor" |
  logger --server "$1" --port "$2" --tcp --octet-count --rfc5424=notq --size 64KiB --tag pyxctl
