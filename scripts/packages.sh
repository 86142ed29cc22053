# The Debian packages that the build, the tests and the demonstration need, and their installation.

readonly packages=(g++ cmake ninja-build pkg-config libjsoncpp-dev libsqlite3-dev sqlite3 libgtest-dev libgmock-dev
                   libcli11-dev libedit-dev rapidjson-dev libsystemd-dev python3 spin lowdown)

# shellcheck disable=SC2034 # the commands read it
# What the tests of the builds without sanitizers need beside them: shells, a log daemon, a browser, what reads manual
# pages, what reads service units, and what counts instructions.
readonly test_packages=(zsh fish rsyslog mandoc man-db chromium chromium-driver python3-selenium
                        systemd valgrind)

# shellcheck disable=SC2034 # the commands read it
# What counts instructions for the bench, and what it holds the plug-in beside.
readonly bench_packages=(valgrind)
# shellcheck disable=SC2034 # the commands read it
readonly peer_packages=(clamav-daemon redis-server rsyslog systemd)

# missing_packages [EXTRA...]
missing_packages() {
  local package
  for package in "${packages[@]}" "$@"; do
    [[ $(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null) == installed* ]] || echo "$package"
  done
}

# install_packages [EXTRA...]: installs what is missing of them; asks nothing of a machine that has everything. Without
# the right or the network for it the command ends.
install_packages() {
  [[ -n $(command -v dpkg-query) ]] || die "this is no Debian; install the equivalents of: ${packages[*]} $*"
  local missing become=()
  mapfile -t missing < <(missing_packages "$@")
  ((${#missing[@]} > 0)) || return 0

  local by_hand="apt-get install ${missing[*]}"
  if (($(id -u) != 0)); then
    [[ -n $(command -v sudo) ]] || die "packages are missing and there is no sudo; run as root: $by_hand"
    become=(sudo)
    [[ -t 0 ]] || become+=(-n)
    "${become[@]}" true || die "packages are missing and sudo gives no right to install them; run as root: $by_hand"
  fi
  say "installing ${missing[*]}"
  local log
  log=$(mktemp)
  # Lists that cannot be fetched may still be good enough for the installation.
  apt_get update >"$log" 2>&1 || true
  if ! apt_get install --no-install-recommends "${missing[@]}" >>"$log" 2>&1; then
    tail -n 15 "$log" >&2
    rm -f "$log"
    die "the packages cannot be installed; see to the network and the package sources, then run as root: $by_hand"
  fi
  rm -f "$log"
}

# Uses `become` of its caller.
apt_get() {
  "${become[@]}" env DEBIAN_FRONTEND=noninteractive apt-get -q -y -o DPkg::Lock::Timeout=300 -o Dpkg::Use-Pty=0 "$@" \
    </dev/null
}
