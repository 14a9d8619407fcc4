# Shared by the scripts beside it; sourced, not run.
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

lab_packages=(python3 qemu-system-x86 cpio kmod binutils) # and qemu-system-arm for ARM

fail() {
  echo "$(basename "$0"): $*" >&2
  exit 1
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
  local as_root=()
  if [ "$(id -u)" -ne 0 ]; then
    command -v sudo >/dev/null || fail "these packages are needed; install them as root: apt-get install ${missing[*]}"
    as_root=(sudo)
  fi
  echo "Installing ${missing[*]} ..."
  local log
  log=$(mktemp)
  if ! { "${as_root[@]}" apt-get update &&
    "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends "${missing[@]}"; } \
    >"$log" 2>&1; then
    tail -n 15 "$log" >&2
    rm -f "$log"
    fail "apt-get could not install ${missing[*]}; its last lines are above"
  fi
  rm -f "$log"
}

# Configures and builds a preset; says nothing unless it fails.
build() {
  command -v g++ >/dev/null || fail "there is no C++ compiler (g++); on Debian: apt-get install g++"
  command -v cmake >/dev/null || fail "there is no cmake; on Debian: apt-get install cmake"
  mkdir -p "$root/build" 2>/dev/null && [ -w "$root/build" ] || fail "there is no permission to write to $root/build"
  local preset=$1 log
  shift
  log=$(mktemp)
  if ! { (cd "$root" && cmake --preset "$preset" "$@" && cmake --build --preset "$preset"); } >"$log" 2>&1; then
    tail -n 60 "$log" >&2
    rm -f "$log"
    fail "building the preset $preset failed; the compiler's last lines are above"
  fi
  rm -f "$log"
}
