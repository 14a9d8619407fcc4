#!/usr/bin/env bash
# The packages, unpacked into a folder, as users take them: README's programs, built with CMake and with pkg-config, on
# the installed air.
set -eEuo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
work=$(mktemp -d)
trap 'kill $(jobs -p) 2>/dev/null || true; rm -rf "$work"' EXIT
cd "$work"
trap 'echo "FAILED, line $LINENO: $BASH_COMMAND"; cat "$work"/log* 2>/dev/null' ERR

rm -f "$root"/build/package/*.deb
(cd "$root" && cmake --workflow --preset package) >log 2>&1
for package in "$root"/build/package/*.deb; do
  dpkg -x "$package" installed
done
usr=$work/installed/usr
libraries=$(dirname "$usr"/lib/*/libtav-bluetooth.a)
export PKG_CONFIG_PATH=$libraries/pkgconfig TAV_AIR=install-$$ TAV_AIR_SPEED=50

for file in share/man/man1/tavbt.1.gz share/bash-completion/completions/tavbt share/zsh/vendor-completions/_tavbt \
  'lib/*/wireshark/plugins/tav.lua'; do
  ls "$usr"/$file >/dev/null
done

# block LANGUAGE N: the N-th block of this language in README.
block() {
  awk -v start="\`\`\`$1" -v n="$2" '/^```/ { inside = $0 == start && ++count == n; next } inside' "$root/README.md"
}
block cpp 1 >my_client.cpp
block cpp 2 >my_server.cpp
block cpp 3 >firmware.cpp
block cmake 1 >CMakeLists.txt

# talk CLIENT SERVER: they greet each other as bricks.
talk() {
  "$usr/bin/tav-air" Robot2 -- "$2" >log.server &
  sleep 2
  "$usr/bin/tav-air" Robot1 -- "$1" >log.client
  wait $!
  grep -qx 'Robot2 says Hello to you' log.client
  grep -qx 'Robot1 says Hello!' log.server
}

cmake -G Ninja -S . -B build -DCMAKE_PREFIX_PATH="$usr" >log 2>&1
cmake --build build >log 2>&1
talk build/my_client build/my_server

# The tool, with the server that was just built.
"$usr/bin/tav-air" Robot2 -- build/my_server >log.server &
sleep 2
"$usr/bin/tav-air" Robot1 -- "$usr/bin/tavbt" send Robot2 greeting --text 'Hello!' 2>log
wait $!
grep -qx 'Robot1 says Hello!' log.server

# The shared library with the default definitions, and the static one with a firmware's own.
read -ra host <<<"$(pkg-config --cflags --libs tav-bluetooth-host)"
read -ra module <<<"$(pkg-config --cflags --libs tav-bluetooth)"
g++ -std=c++17 my_server.cpp -o server "${host[@]}"
g++ -std=c++17 my_client.cpp firmware.cpp -o client "${module[@]}"
LD_LIBRARY_PATH=$libraries talk ./client ./server
g++ -std=c++17 my_client.cpp -o open "${module[@]}" 2>log || true
grep -q 'undefined reference to .tav_c_api_impl::Get_TAVBrickName' log

# The manual pages, and that an operation's name leads to its page.
cd "$usr/share/man"
gunzip -r man3
mandoc -T lint -W warning $(grep -L '^\.so' man3/*) >"$work/log"
mandoc man3/C_TAV_Bluetooth::Connect_Index.3 >"$work/log"
grep -q 'the channel is not one of 1 to 30' "$work/log"
cd "$work"

# Nothing but the class, its records and the four of api/ is to be seen.
nm -DC --defined-only "$libraries/libtav-bluetooth-host.so.1" | cut -d ' ' -f 3- >log
grep -q '^tav_c_api_impl::C_TAV_Bluetooth::BT_Scan()' log
api='tav_c_api::(g_isLog_Quorvant_TAV|WriteLog_Dbg)|tav_c_api_impl::(Get_TAVBrickName|DeleteFile)'
if grep -vE "^(int )?tav_c_api_impl::(C_TAV_Bluetooth|S_BT_[A-Za-z]+)::|^($api)[@(]|^TAV_BLUETOOTH_1" log; then
  echo "FAILED: the shared library shows more than is public" && exit 1
fi
