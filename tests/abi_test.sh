#!/usr/bin/env bash
# The shared library's binary interface, against the stored one: programs that were linked with that
# run with this one. `abi_test.sh --store BUILD` stores that of a build folder, as scripts/release does, too.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
stored=$root/tests/abi.xml.gz
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

if [ "${1:-}" = --store ]; then
  abidw --exported-interfaces-only --no-corpus-path --no-comp-dir-path --no-show-locs --no-parameter-names \
    --no-elf-needed "$2/libtav-bluetooth-host.so" | gzip -9n >"$stored"
  exit
fi

zcat "$stored" >"$work/abi"
library=$TAV_BUILD/libtav-bluetooth-host.so
compare=(abidiff --suppressions "$root/tests/abi.suppr")
if ! "${compare[@]}" --no-added-syms "$work/abi" "$library"; then
  echo "FAILED: programs that are linked with the last release may not run with this: keep it, or make a new major version"
  exit 1
elif ! "${compare[@]}" "$work/abi" "$library"; then
  echo "FAILED: this shows more than is stored: give it a version node of its own in packaging/exports.map, and store the"
  echo "interface: tests/abi_test.sh --store $TAV_BUILD"
  exit 1
fi
