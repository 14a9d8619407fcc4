#!/usr/bin/env bash
# The packages, unpacked into a folder, as users take them: README's programs on the installed air, with the installed
# tool, and what Debian asks of packages.
set -eEuo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
trap 'echo "FAILED, line $LINENO: $BASH_COMMAND"; cat "$work"/log* 2>/dev/null' ERR

# block FILE LANGUAGE N: the N-th block of this language in a document.
block() {
  PYTHONDONTWRITEBYTECODE=1 "$root/docs/blocks.py" "$root/$1" "$2" "$3"
}

# The robot of docs/testing.md, and the steps of its workflow as they stand; but for apt-get, which unpacks our packages
# here, and is content with others that are known.
usr=$work/installed/usr
mkdir bin robots
cat >bin/apt-get <<SH
#!/bin/sh
for word in "\$@"; do
  case \$word in
    *.deb) dpkg -x "\$word" "$work/installed" ;;
    -* | install | update) ;;
    *) dpkg -s "\$word" || apt-cache show "\$word" ;;
  esac || exit
done
SH
chmod +x bin/apt-get
ln -s "$root" robots/tav-bluetooth
block docs/testing.md cpp 1 >robots/robot.h
block docs/testing.md cpp 2 >robots/robot.cpp
block docs/testing.md cpp 3 >robots/robot_test.cpp
block docs/testing.md cmake 1 >robots/CMakeLists.txt
block docs/testing.md python 1 >robots/conftest.py
block docs/testing.md python 2 >robots/robot_test.py
unset TAV_BUILD
block docs/testing.md yaml 1 | sed -n 's/^ *- run: //p' >steps
[ "$(wc -l <steps)" -eq 8 ]
while read -r step; do
  (cd robots && PATH=$work/bin:$usr/bin:$PATH CMAKE_PREFIX_PATH=$usr PYTHONPATH=$usr/lib/python3/dist-packages \
    sh -ec "$step") >log 2>&1 </dev/null
done <steps
libraries=$(dirname "$usr"/lib/*/libtav-bluetooth.a)
export PKG_CONFIG_PATH=$libraries/pkgconfig TAV_AIR_SPEED=50

for file in share/man/man1/{tavbt,tav-session}.1.gz share/bash-completion/completions/{tavbt,tav-session} \
  share/zsh/vendor-completions/{_tavbt,_tav-session} \
  'lib/*/wireshark/plugins/tav.lua'; do
  # shellcheck disable=SC2086  # a pattern
  ls "$usr"/$file >/dev/null
done

block README.md cpp 1 >my_client.cpp
cp "$root/examples/tutorial/answer.cpp" my_server.cpp
block docs/building.md cpp 1 >firmware.cpp
block docs/building.md cmake 1 >CMakeLists.txt

[ "$("$usr/bin/tav-air" --version)" = "tav-air $(dpkg-deb -f "$root"/build/package/tavbt_*.deb Version)" ]
cmake -G Ninja -S . -B build -DCMAKE_PREFIX_PATH="$usr" >log 2>&1
cmake --build build >log 2>&1
PATH=$usr/bin:$PATH sh -ec "$(grep '^    tav-air run ' "$root/docs/building.md")" >log.talk
grep -qx 'Robot1 | Robot2 says Hello to you' log.talk
"$usr/bin/tav-air" run Robot2=build/my_server Robot1="$usr/bin/tavbt send Robot2 greeting --text Hello!" >log.talk
grep -qx 'Robot2 | Robot1 says Hello!' log.talk

python=$usr/lib/python3/dist-packages
PYTHONPATH=$python "$usr/bin/tav-air" run Robot2=build/my_server Robot1="/usr/bin/python3 -c '
from tav_bluetooth import C_TAV_Bluetooth
with C_TAV_Bluetooth() as bluetooth:
    bluetooth.SendMsg_TAV_String(\"Robot2\", \"greeting\", \"Hello!\")
    print(bluetooth.ReadMsg_TAV_String(\"Robot2\", \"greeting\", 100, 5000))'" >log.talk
grep -qx 'Robot1 | Hello to you' log.talk

# What the firmware leaves open is told by the linker.
g++ -std=c++17 -I"$usr/include/tav-bluetooth" my_client.cpp -o open -L"$libraries" -ltav-bluetooth -lbluetooth 2>log ||
  true
grep -q 'undefined reference to .tav_c_api_impl::Get_TAVBrickName' log

"$usr/bin/tav-lab" --help | grep -q '^  tav-lab Robot2='

# The usual programs of operation.md; of the scanner, that it outlives the device whose answer makes libbluetooth loop.
for n in {1..7}; do block docs/operation.md cpp "$n"; done >usual.cpp
echo 'int main() { C_TAV_Bluetooth bluetooth; return List_All(bluetooth) ? 0 : 1; }' >>usual.cpp
# shellcheck disable=SC2046  # options
g++ -std=c++17 -Wall -Wextra usual.cpp -o usual $(pkg-config --cflags --libs tav-bluetooth-host) 2>log
export LD_LIBRARY_PATH=$libraries
"$usr/bin/tav-air" --service 0x35080900043503370000 Evil -- sleep 60 &
"$usr/bin/tav-air" --service Lamp=4 Good -- sleep 60 &
for _ in {1..10}; do  # until both are there
  "$usr/bin/tav-air" Robot1 -- ./usual >log || true
  grep -qx '  cannot be asked' log && grep -qx '  channel 4  Lamp' log && break
done
kill %1 %2
grep -qx '  cannot be asked' log
grep -qx '  channel 4  Lamp' log

# The packages are hardened: a socket beyond those of select ends the program before it writes beyond the set.
cat >beyond.cpp <<'TXT'
#include "bluetooth/C_TAV_Bluetooth.h"
#include <fcntl.h>
int main()
{
    return tav_c_api_impl::C_TAV_Bluetooth().WriteData(fcntl(1, F_DUPFD, 1500), "x", 1U);
}
TXT
# shellcheck disable=SC2046  # options
g++ -std=c++17 beyond.cpp -o beyond $(pkg-config --cflags --libs tav-bluetooth-host) 2>log
if [ "$(ulimit -Hn)" = unlimited ] || [ "$(ulimit -Hn)" -gt 1500 ]; then
  status=0
  prlimit --nofile=2000 ./beyond >log 2>&1 || status=$?
  [ "$status" -eq 134 ] # SIGABRT
  grep -qE 'bit out of range|buffer overflow detected' log
fi

# The manual pages, and that an operation's name leads to its page.
cd "$usr/share/man"
gunzip -r man3
# shellcheck disable=SC2046  # names without blanks
mandoc -T lint -W warning $(grep -L '^\.so' man3/*) >"$work/log"
mandoc man3/C_TAV_Bluetooth::Connect_Index.3 >"$work/log"
grep -q 'the channel is not one of 1 to 30' "$work/log"
cd "$work"

# Hardened as Debian's own. In the air, the checked calls are what it takes the place of.
for binary in "$usr"/bin/tavbt "$libraries"/*.so.1 "$usr"/lib/tav-bluetooth/libtav_air.so "$python"/tav_bluetooth/*.so; do
  readelf -ldsW --dyn-syms "$binary" >log
  grep -q GNU_RELRO log
  grep -q BIND_NOW log
  grep -q __stack_chk_fail log
  [[ $binary == *libtav_air.so ]] || grep -qE '__(mem|str|sn|vsn|f)[a-z]+_chk@' log
done
readelf -hW "$usr/bin/tavbt" >log
grep -q 'Type: *DYN' log

# Documents find each other where they are installed.
find "$usr/share/doc" -name '*.md' -exec "$root/docs/check" {} + >log

# No complaint, except of an address that nobody has, and that the site brings its scripts with it.
if command -v lintian >log; then
  lintian --fail-on error,warning \
    --suppress-tags bogus-mail-host,bogus-mail-host-in-debian-changelog,embedded-javascript-library \
    "$root"/build/package/*.deb >log 2>&1
fi

# Nothing but the class, its records, the four of api/ and the two of host/ is to be seen.
nm -DC --defined-only "$libraries/libtav-bluetooth-host.so.1" | cut -d ' ' -f 3- >log
grep -q '^tav_c_api_impl::C_TAV_Bluetooth::BT_Scan()' log
api='tav_host::(Limit_Descriptors|Printable.abi:cxx11.)|tav_c_api::(g_isLog_Quorvant_TAV|WriteLog_Dbg)|tav_c_api_impl::(Get_TAVBrickName|DeleteFile)'
if grep -vE "^(int )?tav_c_api_impl::(C_TAV_Bluetooth|S_BT_[A-Za-z]+)::|^($api)[@(]|^TAV_BLUETOOTH_1" log; then
  echo "FAILED: the shared library shows more than is public" && exit 1
fi
