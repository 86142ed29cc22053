#!/bin/bash
# cross-arm64.sh: builds everything for 64-bit Arm and runs its tests under user-mode emulation.
set -euo pipefail
cd "$(dirname "$(readlink -f "$0")")/.."
. scripts/say.sh
. scripts/packages.sh
. scripts/sysroot.sh
. scripts/build.sh
. scripts/results.sh

readonly sysroot=build/arm64-sysroot results=$PWD/build/arm64/results.xml
passed=0 failed=0 skipped=0 what_failed=

# What cannot run here. The emulator sets no limit to its program's memory and keeps a real-time signal for itself; a
# namespace that anybody may have knows one user; and an interpreter of this machine does not load a library for Arm.
readonly not_here=(
  unit-tests.AWantOfMemory.CostsALogLineItsMessageAndNothingElse
  unit-tests.AWantOfMemory.IsNotTakenForDamageOfTheTextThatIsParsed
  unit-tests.ASignalBlock.KeepsTheSignalsOfTheProcessFromItsThreadWhileItLives
  unit-tests.AServiceDirectory.IsNotOnesOwnWhenItIsAnotherUsers
  doctor-tests.AStorageDirectory.HoldsAFileOfAnotherUser
  client-python
  examples
)

help() {
  cat <<END
Usage: scripts/cross-arm64.sh [sysroot | build | test [REGEX]]

Builds the preset arm64 and runs its tests: all but the campaigns of faults, which take long and trace processes, as no
emulator lets them, or those that REGEX names. With "sysroot" or "build" it stops there; then the preset arm64 works by
itself.

Installs Debian's cross compiler and the emulator (apt-get). The libraries for Arm are fetched from the machine's package
sources and unpacked in $sysroot; the machine itself gets no other architecture. The emulator is
registered for the programs of the tests in a namespace of theirs, which takes Linux 6.7; nobody else sees it.
END
}

# A list of one name a line: the packages of the build that hold headers, and what every program needs.
sysroot_packages() {
  printf '%s\n' libc6-dev libstdc++6
  printf '%s\n' "${packages[@]}" | grep -e '-dev$'
}

prepare() {
  local libraries
  install_packages g++-aarch64-linux-gnu qemu-user
  mapfile -t libraries < <(sysroot_packages)
  make_sysroot arm64 "$sysroot" "${libraries[@]}"
}

emulated() {
  unshare --user --map-root-user --mount scripts/with-emulator.sh aarch64 "$sysroot" "$@"
}

# run_tests [REGEX]
run_tests() {
  local status=0 choice=(-LE '^(fault|slow)$' -E "^($(IFS='|' && echo "${not_here[*]}"))\$")
  [[ -z ${1-} ]] || choice=(-R "$1")
  say "testing the arm64 preset under emulation"
  rm -f "$results"
  emulated ctest --preset arm64 -j "$(nproc)" "${choice[@]}" --output-junit "$results" || status=$?
  count_results "$results" "$status"
  note_failures arm64 "$results"
  [[ -z $what_failed ]] || printf 'What failed:\n%s' "$what_failed"
  [[ -n ${1-} ]] || say "${#not_here[@]} cannot run here: ${not_here[*]}"
  ((skipped == 0)) || say "$skipped skipped"
  echo "$passed passed, $failed failed"
  ((passed > 0 && failed == 0))
}

case ${1-} in
  '' | sysroot | build | test) task=${1-} ;;
  -h | --help) help && exit 0 ;;
  *) help >&2 && exit 2 ;;
esac
prepare
[[ $task != sysroot ]] || exit 0
build_preset arm64
[[ $task != build ]] || exit 0
run_tests "${2-}"
