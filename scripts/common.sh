# shellcheck shell=bash
# Shared by the scripts beside it; sourced, not run.
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

# For those that source this: what building everything needs, the documents, and the lab (and qemu-system-arm for ARM).
# shellcheck disable=SC2034
build_packages=(g++ cmake libasio-dev libbluetooth-dev libcli11-dev libgtest-dev ninja-build nlohmann-json3-dev
  pybind11-dev python3 python3-dev)
# shellcheck disable=SC2034
docs_packages=(doxygen furo python3 python3-breathe python3-myst-parser)
# shellcheck disable=SC2034
lab_packages=(python3 qemu-system-x86 cpio kmod binutils zstd)

fail() {
  echo "$(basename "$0"): $*" >&2
  exit 1
}

# Shows that $1 goes on, until whoever calls this closes the pipe on stdin: a line that moves on a terminal; elsewhere
# one line, and one more every half minute.
show_life() {
  local begun=$SECONDS seconds=0 status=0
  [ -t 2 ] || echo "$1 ..." >&2
  while :; do
    [ ! -t 2 ] || printf '\r\e[K%s ... %s s' "$1" $((SECONDS - begun)) >&2
    read -rt 1 || status=$?
    [ "$status" -gt 128 ] || break # otherwise a second has passed
    [ -t 2 ] || [ $((++seconds % 30)) -ne 0 ] || echo "$1 ... $((SECONDS - begun)) s" >&2
  done
  [ ! -t 2 ] || echo >&2
}

# quietly WHAT COMMAND ...: shows that the command goes on, and of its output only the end, when it fails. The log has no
# name: nothing stays behind, however this ends.
quietly() {
  local what=$1 name log life shower status=0
  shift
  name=$(mktemp) || fail "cannot write to ${TMPDIR:-/tmp}"
  exec {log}<>"$name"
  rm "$name"
  exec {life}> >(exec {log}>&- && show_life "$what")
  shower=$!
  "$@" >&"$log" 2>&1 {log}>&- {life}>&- || status=$?
  exec {life}>&-
  wait "$shower" || true
  [ "$status" -eq 0 ] || tail -n 60 "/proc/self/fd/$log" >&2
  exec {log}>&-
  return "$status"
}

# start COMMAND ...: beside all else, as a group of processes of its own, which ends with this script, however that ends.
groups=()
start() {
  set -m # gives it a group, and Ctrl-C its meaning
  (set +m && "$@") </dev/null &
  set +m
  groups+=($!)
  trap end_groups EXIT
}

end_groups() {
  local group
  for group in "${groups[@]}"; do
    kill -- "-$group" 2>/dev/null || true
  done
}

# Installs the Debian packages named, if one is missing.
need() {
  local missing=() package
  for package in "$@"; do
    [ "$(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null)" = installed ] || missing+=("$package")
  done
  [ ${#missing[@]} -gt 0 ] || return 0
  command -v apt-get >/dev/null ||
    fail "these Debian packages are needed, and there is no apt-get to install them: ${missing[*]}"
  as_root=()
  if [ "$(id -u)" -ne 0 ]; then
    command -v sudo >/dev/null || fail "these packages are needed; install them as root: apt-get install ${missing[*]}"
    sudo -v || fail "these packages are needed, and sudo does not let you install them: ${missing[*]}"
    as_root=(sudo)
  fi
  quietly "Installing ${missing[*]}" install_packages "${missing[@]}" ||
    fail "apt-get could not install ${missing[*]}; its last lines are above. Is there a network?"
}

# One script after the other: apt waits for others that install, but not for those that get its lists.
install_packages() {
  local lock
  exec {lock}<"$root/scripts/common.sh"
  flock "$lock"
  "${as_root[@]}" apt-get -o DPkg::Lock::Timeout=600 update {lock}<&- &&
    "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get -o DPkg::Lock::Timeout=600 install -y \
      --no-install-recommends "$@" {lock}<&-
}

# Configures and builds a preset; shows nothing of it unless it fails. It is nice to tests that run meanwhile.
build() {
  command -v g++ >/dev/null || fail "there is no C++ compiler (g++); on Debian: apt-get install g++"
  command -v cmake >/dev/null || fail "there is no cmake; on Debian: apt-get install cmake"
  { mkdir -p "$root/build" && [ -w "$root/build" ]; } 2>/dev/null ||
    fail "there is no permission to write to $root/build"
  quietly "Building the preset $1" build_preset "$@" ||
    fail "building the preset $1 failed; the compiler's last lines are above"
}

build_preset() {
  local preset=$1
  shift
  cd "$root" && nice cmake --preset "$preset" "$@" && nice cmake --build --preset "$preset"
}
