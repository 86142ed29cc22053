# Builds a preset.

# choose_launcher PRESET: sets `launcher`, which runs what is built in it. The sanitizers lay out the memory themselves
# and cannot with the widest address randomisation of some kernels.
choose_launcher() {
  launcher=()
  [[ $1 == [at]san || $1 == fuzz ]] || return 0
  if setarch "$(uname -m)" -R true 2>/dev/null; then launcher=(setarch "$(uname -m)" -R); fi
}

# build_preset PRESET [TARGET...]: quiet unless it fails; without targets, all of it.
build_preset() {
  local preset=$1 directory=build/$1 log=build/$1/build.log
  shift
  choose_launcher "$preset"
  mkdir -p "$directory"
  say "building the $preset preset (the first time takes some minutes)"
  if (
    # Two commands may build one preset at the same time.
    flock 9
    # The build runs the test programs for the names of their tests.
    cmake --preset "$preset" && "${launcher[@]}" cmake --build --preset "$preset" ${1:+--target "$@"}
  ) 9>"$directory/build.lock" >"$log" 2>&1; then
    return 0
  fi
  tail -n 40 "$log" >&2
  say "the $preset preset does not build; the errors stand above, everything in $log" >&2
  return 1
}
