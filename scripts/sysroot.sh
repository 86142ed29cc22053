# A device's root for the cross compiler: the libraries of another Debian architecture, unpacked below build/. The
# machine's own packages, its list of architectures and the state of its apt stay as they are.

# make_sysroot ARCHITECTURE DIRECTORY PACKAGE...: fetches the packages, with what they depend on, from the machine's own
# package sources and unpacks them; nothing of them is run. A sysroot that is there and holds them is left alone.
make_sysroot() {
  local architecture=$1 root=$2 apt=$2.apt
  shift 2
  [[ $(cat "$root/.packages" 2>/dev/null) != "$*" ]] || return 0
  say "making the sysroot $root of $*"
  rm -rf "$root" "$apt"
  mkdir -p "$apt"/{state/lists/partial,cache/archives/partial} "$root"
  : >"$apt/status"
  fetch_packages "$architecture" "$apt" "$@" || return 1
  unpack_packages "$apt/cache/archives" "$root" || return 1
  make_links_relative "$root"
  echo "$*" >"$root/.packages"
  rm -rf "$apt"
}

# To this apt the other architecture is its own, and no package is installed yet.
fetch_packages() {
  local architecture=$1 apt=$2 log=$2.log
  local options=(-q -y -o "Dir::State=$PWD/$apt/state" -o "Dir::State::status=$PWD/$apt/status"
                 -o "Dir::Cache=$PWD/$apt/cache" -o "APT::Architecture=$architecture"
                 -o "APT::Architectures=$architecture" -o "APT::Sandbox::User=" -o "APT::Install-Recommends=false")
  shift 2
  # A source that does not have the architecture, or is not to be had, matters only where it is the one that is needed.
  apt-get "${options[@]}" update >"$log" 2>&1 </dev/null || true
  apt-get "${options[@]}" install --download-only "$@" >>"$log" 2>&1 </dev/null && return 0
  tail -n 15 "$log" >&2
  say "the packages of $architecture cannot be fetched; see to the network and the package sources ($log)" >&2
  return 1
}

unpack_packages() {
  local package directory
  # Packages name files by both paths.
  for directory in bin lib sbin; do
    mkdir -p "$2/usr/$directory"
    ln -s "usr/$directory" "$2/$directory"
  done
  for package in "$1"/*.deb; do
    dpkg-deb --fsys-tarfile "$package" |
      tar -x -C "$2" --keep-directory-symlink --no-same-owner --exclude=./usr/share/{doc,locale,man} || return 1
  done
}

# A link to an absolute path would lead out of the sysroot.
make_links_relative() {
  local link
  while IFS= read -r -d '' link; do
    ln -sfn --relative "$1$(readlink "$link")" "$link"
  done < <(find "$1" -type l -lname '/*' -print0)
}
