# The root that the plug-in runs on: its paths are fixed, so something of the project's own is mounted there, or, where
# the machine refuses that, the real paths are borrowed.

# shellcheck disable=SC2034 # the commands read `device`

readonly plugin_directory=/opt/data/dpm/dplugins/zav-pyx-plugin
readonly run_directory=/tmp/zav-pyx-plugin

# private or real, by choose_device
device=
# What borrow_real_paths has to bring back, the deepest first.
borrowed=()

# choose_device DEVICE_ROOT_PROGRAM
choose_device() {
  local why path
  device=private
  why=$("$1" --check 2>&1) && return 0

  device=real
  say "${why:-$1 --check fails}"
  (($(id -u) == 0)) || die "without namespaces only root can go on, with the real paths; run it as root"
  for path in "$plugin_directory" "$run_directory"; do
    [[ ! -e $path && ! -L $path ]] || die "without namespaces the real $path is needed, but it is in use; move it away"
  done
  say "using the real $plugin_directory and $run_directory, and removing them at the end"
}

# Remembers what of the real paths is not there yet. return_real_paths must follow, at the exit of the command too.
borrow_real_paths() {
  local path
  for path in "$plugin_directory" "$run_directory"; do
    while [[ ! -e $path ]]; do
      borrowed+=("$path")
      path=${path%/*}
    done
  done
}

# Removes what was not there before, the parents only when nothing else has come into them.
return_real_paths() {
  local path
  for path in "${borrowed[@]}"; do
    case $path in
      "$plugin_directory" | "$run_directory") rm -rf "$path" ;;
      *) rmdir "$path" 2>/dev/null || true ;;
    esac
  done
  borrowed=()
}

# put_policy OPT: makes the plug-in's directory, with the default policy in it, below what stands at /opt. A policy that
# is there already may be somebody's own.
put_policy() {
  local policy=$1${plugin_directory#/opt}/policy.json
  mkdir -p "${policy%/*}"
  [[ -e $policy ]] || cp host/policy.json "$policy"
}
