#!/usr/bin/env bash
# rooms.sh SOURCE-DIRECTORY: no file includes what its room may not use (docs/architecture.md), and the calls that belong
# to one room stand in no other.
set -eu
cd "$1"
failures=0

fail() {
  echo "$1"
  failures=$((failures + 1))
}

# may_use ROOM PATTERN: every quoted include of the room's own files matches the pattern.
may_use() {
  local found
  found=$(find "$1" -maxdepth 1 \( -name '*.h' -o -name '*.cpp' \) -exec grep -HnE '^#include "' {} + | grep -vE "#include \"($2)" || true)
  [ -z "$found" ] || fail "$1 may not include: $found"
}

# only_in PLACES PATTERN: nothing below src/plugin but the places (a pattern of paths) has a line like that.
only_in() {
  local found
  found=$(grep -rnE "$2" src/plugin --include='*.h' --include='*.cpp' | grep -vE "^src/plugin/($1)" || true)
  [ -z "$found" ] || fail "only $1 may say $2: $found"
}

may_use src/plugin/common 'common/'
may_use src/plugin/policy 'policy/|common/'
may_use src/plugin/pyx 'pyx/|policy/|common/'
may_use src/plugin/ipc/socket 'ipc/socket/|common/'
may_use src/plugin/ipc/service 'ipc/|pyx/|policy/|common/'

only_in 'common/DBStorage' '(SELECT|INSERT|CREATE TABLE) '
only_in 'policy/Policy' '#include <json/|Json::'
only_in '(PYXManager|ipc/service/Service)\.' 'std::(thread|make_unique<std::thread>)[ (&]'
only_in 'common/(FileHelper|GlobalPaths)' '\b(mkdir|rmdir|opendir|lstat|fopen|rename)\('
only_in 'ipc/socket/' '\b(accept4?|bind|listen|connect|send|recv|getsockopt)\((AF_|fd|descriptor)'

# The clients know of the plug-in what travels, and pyxctl of the library what everybody knows.
if grep -rnE '^#include "(ipc|pyx|policy|common)/' client --include='*.h' --include='*.cpp' |
  grep -v '^client/lib/.*"ipc/service/Package.h"'; then fail "client may not include that"; fi
if grep -rnE '^#include "(Answer|Client|Connection|Cursor|Request|Walk)\.h"' client/pyxctl; then fail "pyxctl uses the library by its headers"; fi

if grep -rnE 'getenv|secure_getenv' src/plugin; then fail "no environment variable has a say in the plug-in"; fi

[ "$failures" -eq 0 ] && echo "every line is in its room"
