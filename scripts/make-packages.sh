#!/bin/bash
# make-packages.sh: makes the Debian packages and holds them against what lintian knows of packages.
set -euo pipefail
cd "$(dirname "$(readlink -f "$0")")/.."
. scripts/say.sh
. scripts/packages.sh
. scripts/build.sh

readonly out=$PWD/build/packages

help() {
  cat <<END
Usage: scripts/make-packages.sh

Installs what is missing (dpkg-dev, file and lintian beside what the build needs), builds the preset "package", puts the
packages into build/packages, in the place of those that are there, and ends with 1 where lintian has an error or a
warning that no override in the packages gives the reason for.
END
}

# What CPack has no setting for: finish_package FILE
finish_package() {
  local tree=build/package/finish multi_arch=''
  rm -rf "$tree"
  dpkg-deb --raw-extract "$1" "$tree"
  case $(dpkg-deb --field "$1" Package) in
    libpyxclient1)
      multi_arch=same
      # CPack's call of ldconfig; the package has the trigger for it.
      rm "$tree/DEBIAN/postinst" "$tree/DEBIAN/postrm"
      ;;
    libpyxclient-dev) multi_arch=same ;;
    pyxctl) multi_arch=foreign ;;
  esac
  [[ -z $multi_arch ]] || sed -i "/^Architecture:/a Multi-Arch: $multi_arch" "$tree/DEBIAN/control"
  dpkg-deb --root-owner-group --build "$tree" "$1" >/dev/null
  rm -rf "$tree"
}

case ${1-} in
  "") ;;
  -h | --help) help && exit 0 ;;
  *) help >&2 && exit 2 ;;
esac
# Modes of directories and of what is generated go into the packages.
umask 022
install_packages dpkg-dev file lintian
build_preset package
rm -rf "$out" build/package/_CPack_Packages
SOURCE_DATE_EPOCH=$(dpkg-parsechangelog -l packaging/debian/changelog -S Timestamp)
export SOURCE_DATE_EPOCH
log=build/package/cpack.log
cpack --config build/package/CPackConfig.cmake >"$log" 2>&1 || { cat "$log" >&2 && die "the packages cannot be made"; }
for package in "$out"/*.deb; do finish_package "$package"; done
lintian --allow-root --fail-on error,warning --display-level '>=warning' "$out"/*.deb >&2 ||
  die "the packages are in $out, but lintian has objections"
for package in "$out"/*.deb; do say "${package#"$PWD"/}"; done
