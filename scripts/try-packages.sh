#!/bin/bash
# try-packages.sh: tries the Debian packages on a machine where nothing was installed.
# shellcheck disable=SC2016 # formats of apt and dpkg
set -euo pipefail
cd "$(dirname "$(readlink -f "$0")")/.."
. scripts/say.sh
. scripts/packages.sh

readonly packages_directory=$PWD/build/packages
readonly plugin=/opt/data/dpm/dplugins/zav-pyx-plugin
readonly names=(zav-pyx-plugin dpm-host pyxctl python3-pyxclient libpyxclient-dev libpyxclient1)
readonly shipped=/usr/share/zav-pyx-plugin/policy.json
# How long a step may take that must not wait for an answer.
readonly patience_s=600 terminal_patience_s=120
readonly path=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin
root=
failed=0
service=

help() {
  cat <<END
Usage: scripts/try-packages.sh

Takes the packages of build/packages (scripts/make-packages.sh makes them) and tries them as root on a bare Debian 12
that it makes with debootstrap from this machine's package source, and removes at the end: installation, the service,
programs, upgrades to versions with another default policy, removal and purge. Says each thing that it looked at, and
ends with 1 where one of them is not as it should be. Needs the network; takes some three minutes.
END
}

# check WORDS COMMAND...: says whether the command succeeds.
check() {
  local words=$1
  shift
  # In this process: what it starts and sets is needed later.
  if "$@" >"$root/check.out" 2>&1; then
    echo "  as it should be: $words"
  else
    echo "  NOT AS IT SHOULD BE: $words"
    sed 's/^/    /' "$root/check.out"
    failed=$((failed + 1))
  fi
}

not() { ! "$@"; }
there() { [[ -e $root$1 || -L $root$1 ]]; }
same() { cmp "$root$1" "$root$2"; }
is() { [[ $1 == "$2" ]] || { echo "it is: $1" && return 1; }; }

# inside COMMAND...: on the bare machine, with nothing of this one's environment and nobody who answers.
inside() {
  timeout "$patience_s" chroot "$root" /usr/bin/env -i HOME=/root LANG=C.UTF-8 PATH="$path" "$@" </dev/null
}
as_anybody() { inside setpriv --reuid nobody --regid nogroup --clear-groups "$@"; }
apt_inside() {
  inside apt-get -q -y -o Dpkg::Use-Pty=0 -o APT::Install-Recommends=false "$@" >"$root/apt.log" 2>&1 ||
    { cat "$root/apt.log" && return 1; }
}

# --- the bare machine and the packages -------------------------------------------------------------------------------

make_root() {
  local mirror
  mirror=$(apt-get indextargets --format '$(REPO_URI)' 'Origin: Debian' 'Codename: bookworm' | head -n 1)
  [[ -n $mirror ]] || die "this machine's package sources have no Debian bookworm"
  say "making a bare Debian 12 from $mirror"
  debootstrap --variant=minbase bookworm "$root" "$mirror" >"$root.log" 2>&1 ||
    { tail "$root.log" >&2 && die "debootstrap fails"; }
  # The way to the source: a proxy, say.
  apt-config dump Acquire >"$root/etc/apt/apt.conf.d/99source"
  cp /etc/resolv.conf /etc/hosts "$root/etc/"
  mount -t proc proc "$root/proc"
  mount --rbind /dev "$root/dev"
}

# make_version VERSION MAX_FILE_SIZE: the same packages as another version, with another default policy.
make_version() {
  local package tree=$root/tree
  mkdir "$root/$1"
  for package in "$packages_directory"/*.deb; do
    dpkg-deb --raw-extract "$package" "$tree"
    sed -i -e "s/^Version: .*/Version: $1/" -e "s/(= $version)/(= $1)/" "$tree/DEBIAN/control"
    if [[ -e $tree$shipped ]]; then
      sed -i "s/\"max_file_size\": [0-9]*/\"max_file_size\": $2/" "$tree$shipped"
      (cd "$tree" && find opt usr -type f -exec md5sum {} + >DEBIAN/md5sums)
    fi
    dpkg-deb --root-owner-group --build "$tree" "$root/$1" >/dev/null
    rm -rf "$tree"
  done
}

# packages VERSION: their files, as the bare machine sees them.
packages() { (cd "$root" && printf '/%s\n' "$1"/*.deb); }

# The same on a terminal at which nobody answers.
upgrade_on_a_terminal() {
  local files command
  mapfile -t files < <(packages "$1")
  printf -v command '%q ' apt-get -q -y install "${files[@]}"
  timeout "$terminal_patience_s" chroot "$root" /usr/bin/env -i HOME=/root LANG=C.UTF-8 TERM=xterm PATH="$path" \
    script --quiet --return --command "$command" /dev/null < <(exec sleep "$patience_s")
}

install_version() {
  local files
  mapfile -t files < <(packages "$1")
  apt_inside install --allow-downgrades "${files[@]}"
}

installed_version() { inside dpkg-query -W -f '${Version}' "$1"; }
owner_and_mode() { stat -c '%U:%G %a' "$root$1"; }
kept_records() { grep -o '"max_file_size": [0-9]*' "$root$plugin/policy.json" | grep -o '[0-9]*$'; }
log_files() { (cd "$root$plugin" && sha256sum .data.db .data.db.bak .data.db.damaged && stat -c '%n %U %a' .data.db*); }
ours() {
  (cd "$root" && find . -xdev \( -path ./proc -o -path ./root -o -path './[0-9]*' \) -prune -o \
    -regex '.*\(pyx\|dpm\).*' -print | sort)
}

# --- the service -----------------------------------------------------------------------------------------------------

start_service() {
  local module
  module=$(inside dpkg -L zav-pyx-plugin | grep '/libzav-pyx-plugin.so$')
  inside sh -c 'echo $$ >/root/host.pid; exec dpm-host "$@"' sh \
    --library "$module" --state-dir /root/host --log /root/host.log --serve >/dev/null 2>&1 &
  service=$!
  inside pyxctl ping --wait --timeout 60 >/dev/null
}

stop_service() {
  kill -TERM "$(cat "$root/root/host.pid")" || return 1
  wait "$service" || { echo "it ended with $?" && return 1; }
}

report() { is "$(as_anybody pyxctl report "$1" --threat phishing)" 'The report is logged.'; }
logged() { inside pyxctl log -o csv | grep -qF "$1"; }
doctor_is_content() {
  inside pyxctl doctor || return 1
  sed 's/^/  doctor: /' "$root/check.out" >&3
}
python_reads() {
  is "$(as_anybody python3 -c 'import pyxclient; print(*(r.url for r in pyxclient.Client().log()))')" "$1"
}
no_library_is_missing() {
  local file
  for file in /usr/bin/pyxctl /usr/bin/dpm-host /usr/bin/device-root; do
    inside ldd "$file" | grep 'not found' && return 1
  done
  return 0
}
no_build_path() {
  local package tree=$root/tree found=
  for package in "$packages_directory"/*.deb; do
    dpkg-deb --raw-extract "$package" "$tree"
    found+=$(grep -rlF "$PWD" "$tree" || true)
    rm -rf "$tree"
  done
  is "$found" ''
}

# With what a developer installs.
c_program_is_built() {
  cp tests/install/consumer/consumer.c "$root/root/"
  apt_inside install gcc libc6-dev pkg-config || return 1
  inside sh -c 'cc /root/consumer.c $(pkg-config --cflags --libs pyxclient) -o /root/consumer'
}

# --- what is tried ---------------------------------------------------------------------------------------------------

try_installation() {
  say "installing $version"
  check "there is nothing of it before" is "$(ours)" ''
  # On a device that has it, it makes the run directory.
  apt_inside update
  apt_inside install systemd-standalone-tmpfiles
  check "the packages install, with nobody to answer a question" install_version "$version"
  check "dpkg finds nothing wrong" is "$(inside dpkg --audit; inside dpkg --verify)" ''
  check "policy.json is the default" same "$shipped" "$plugin/policy.json"
  check "its directory is root's alone" is "$(owner_and_mode "$plugin")" 'root:root 700'
  check "the run directory is made, and is root's" is "$(owner_and_mode /tmp/zav-pyx-plugin)" 'root:root 755'
  check "no library is missing" no_library_is_missing
  check "no path of the build is in the packages" no_build_path
}

try_service() {
  say "running the service"
  check "the service comes up" start_service
  check "any user's report is logged" report http://a.example/
  check "pyxctl shows it" logged http://a.example/
  check "the Python module reads it" python_reads http://a.example/
  check "a C program is built with libpyxclient-dev" c_program_is_built
  check "it reports" is "$(inside /root/consumer)" "done"
  check "pyxctl doctor finds nothing wrong" doctor_is_content
  check "the service ends" stop_service
  echo evidence >"$root$plugin/.data.db.damaged"
}

try_upgrades() {
  local files policy
  files=$(log_files)
  say "upgrading to 99.1, whose default policy differs; policy.json was not changed"
  check "it upgrades" install_version 99.1
  check "the plug-in is 99.1" is "$(installed_version zav-pyx-plugin)" 99.1
  check "policy.json is the new default" is "$(kept_records)" 11
  check "the log, its backup and the evidence are as they were" is "$(log_files)" "$files"

  say "upgrading to 99.2, whose default policy differs; policy.json was changed, and the directory is another user's"
  sed -i 's/"max_file_size": 11/"max_file_size": 77/' "$root$plugin/policy.json"
  inside chown -R games:games "$plugin"
  chmod 0750 "$root$plugin"
  policy=$(owner_and_mode "$plugin/policy.json")
  files=$(log_files)
  check "it upgrades, on a terminal at which nobody answers" upgrade_on_a_terminal 99.2
  check "the plug-in is 99.2" is "$(installed_version zav-pyx-plugin)" 99.2
  check "policy.json is as it was changed" is "$(kept_records)" 77
  check "its owner and mode are as they were" is "$(owner_and_mode "$plugin/policy.json")" "$policy"
  check "the new default lies beside it" same "$shipped" "$plugin/policy.json.ucf-dist"
  check "its directory's owner and mode are as they were" is "$(owner_and_mode "$plugin")" 'games:games 750'
  check "the log, its backup and the evidence are as they were" is "$(log_files)" "$files"

  say "installing 99.1 again, over the changed policy.json"
  check "it installs" install_version 99.1
  check "policy.json is as it was changed" is "$(kept_records)" 77

  say "upgrading to 99.2, with policy.json missing"
  rm "$root$plugin/policy.json"
  check "it upgrades" install_version 99.2
  check "policy.json is the new default" same "$shipped" "$plugin/policy.json"
  check "it belongs to the directory's user" is "$(owner_and_mode "$plugin/policy.json")" 'games:games 644'
  inside chown -R root:root "$plugin"
  chmod 0700 "$root$plugin"
}

try_service_after_upgrades() {
  say "running the service of 99.2"
  rm "$root$plugin/.data.db.damaged"
  check "the service comes up" start_service
  check "the report of before is in the log" logged http://a.example/
  check "another one is logged" report http://b.example/
  check "pyxctl doctor finds nothing wrong" doctor_is_content
  say "upgrading the running service's packages"
  check "they upgrade" install_version 99.3
  check "the service still answers" report http://c.example/
  check "the service ends" stop_service
  echo evidence >"$root$plugin/.data.db.damaged"
}

try_removal() {
  local files
  files=$(log_files)
  sed -i 's/"max_file_size": [0-9]*/"max_file_size": 77/' "$root$plugin/policy.json"
  say "removing"
  check "they are removed" apt_inside remove "${names[@]}"
  check "the plug-in is gone" is "$(find "$root/usr" -name '*pyx*' -not -path '*/ucf/*')" ''
  check "policy.json stays" is "$(kept_records)" 77
  check "the log, its backup and the evidence stay" is "$(log_files)" "$files"
  say "installing $version again"
  check "it installs" install_version "$version"
  check "policy.json is as it was changed" is "$(kept_records)" 77
}

try_purge() {
  local files
  files=$(log_files)
  say "purging"
  check "they are purged" apt_inside purge "${names[@]}"
  check "policy.json is gone, and what lay beside it" is "$(find "$root$plugin" -name 'policy*')" ''
  check "the log, its backup and the evidence stay" is "$(log_files)" "$files"
  check "ucf has forgotten it" not grep -q pyx "$root/var/lib/ucf/hashfile" "$root/var/lib/ucf/registry"
  check "dpkg has forgotten them" is "$(inside dpkg-query -W -f '${Package} ' '*pyx*' 'dpm-host' 2>/dev/null)" ''

  say "installing and purging where there is no log, and no systemd-tmpfiles"
  apt_inside purge systemd-standalone-tmpfiles
  rm -rf "$root/opt/data" "$root/tmp/zav-pyx-plugin"
  mkdir -p "$root$plugin"
  sed 's/"max_file_size": [0-9]*/"max_file_size": 55/' host/policy.json \
    >"$root$plugin/policy.json"
  check "the packages install" install_version "$version"
  check "a policy.json that was there before the package is as it was" is "$(kept_records)" 55
  check "the run directory is left to the plug-in" not there /tmp/zav-pyx-plugin
  check "the service comes up" start_service
  check "the run directory is root's" is "$(owner_and_mode /tmp/zav-pyx-plugin)" 'root:root 755'
  check "the service ends" stop_service
  rm -rf "$root/tmp/zav-pyx-plugin" "$root$plugin"/.data.db*
  check "they are purged" apt_inside purge "${names[@]}"
  check "nothing of it stays" is "$(ours)" ''
  check "and not the directories above it" not there /opt/data
}

# In namespaces of its own: nothing that is mounted or started outlives it.
try_everything() {
  root=$1
  trap 'exit 130' INT TERM HUP
  # What a check's command wants to be seen.
  exec 3>&1
  make_root
  mkdir "$root/$version"
  cp "$packages_directory"/*.deb "$root/$version"
  make_version 99.1 11
  make_version 99.2 12
  make_version 99.3 12
  try_installation
  try_service
  try_upgrades
  try_service_after_upgrades
  try_removal
  try_purge
  ((failed == 0)) || die "$failed things are not as they should be"
  say "everything is as it should be"
}

case ${1-} in
  "" | --in-namespaces) ;;
  -h | --help) help && exit 0 ;;
  *) help >&2 && exit 2 ;;
esac
(($(id -u) == 0)) || die "only root can make a machine's root"
version=$(dpkg-deb --field "$packages_directory"/zav-pyx-plugin_*.deb Version) ||
  die "there are no packages in build/packages; scripts/make-packages.sh makes them"
readonly version
if [[ ${1-} == --in-namespaces ]]; then
  try_everything "$2"
  exit 0
fi
install_packages debootstrap dpkg-dev
root=$(mktemp -d "$PWD/build/try-packages.XXXXXX")
# A user of the bare machine must be able to pass its root.
chmod 0755 "$root"
trap 'rm -rf --one-file-system "$root" "$root.log"' EXIT
unshare --mount --propagation private --pid --fork --kill-child "$0" --in-namespaces "$root"
