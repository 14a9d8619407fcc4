#!/usr/bin/env bash
# linking_test.sh [TOOLCHAIN EMULATOR ...]: a user's project links each library in each way, beside a checkout and with
# the installed one, in a path with a blank, an umlaut, a quote and parentheses; with a tool chain file, cross built.
set -eEuo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
trap 'echo "FAILED, line $LINENO: $BASH_COMMAND"; cat "$work/log"' ERR
cross=() emulator=()
[ $# -eq 0 ] || cross=("-DCMAKE_TOOLCHAIN_FILE=$1") emulator=("${@:2}")
project="$work/Möbius' (robots) new"
mkdir -p "$project/tav-bluetooth"
tar -C "$root" --exclude=./build --exclude=./.git -c . | tar -C "$project/tav-bluetooth" -x
cd "$project"

# A library of the user's, static or shared, on each of ours; and a program on it, which names nothing else.
cat >my_lib.cpp <<'TXT'
#include "api/tav_c_api.h"
#include "bluetooth/C_TAV_Bluetooth.h"
std::string Ask_Name()
{
    tav_c_api_impl::C_TAV_Bluetooth bluetooth;
    std::string name;
    tav_c_api_impl::Get_TAVBrickName(name);
    return bluetooth.isConnected(name) < 0 ? name : "";
}
TXT
cat >app.cpp <<'TXT'
#include <iostream>
#include <string>
std::string Ask_Name();
int main()
{
    std::cout << Ask_Name() << '\n';
}
TXT
cat >firmware.cpp <<'TXT'
#include "api/tav_c_api.h"
bool tav_c_api::g_isLog_Quorvant_TAV = false;
void tav_c_api::WriteLog_Dbg(const char*, ...) {}
bool tav_c_api_impl::Get_TAVBrickName(std::string& name)
{
    name = "Robot1";
    return true;
}
bool tav_c_api_impl::DeleteFile(const std::string&)
{
    return true;
}
TXT
cat >CMakeLists.txt <<'TXT'
cmake_minimum_required(VERSION 3.25)
project(my_robots CXX)
if(INSTALLED)
  find_package(TavBluetooth 1.0 REQUIRED)
else()
  add_subdirectory(tav-bluetooth)
endif()
add_library(firmware STATIC firmware.cpp)
set_target_properties(firmware PROPERTIES POSITION_INDEPENDENT_CODE ON)
target_link_libraries(firmware PUBLIC TavBluetooth::bluetooth)
foreach(kind STATIC SHARED)
  foreach(library bluetooth host host_static)
    set(mine my_${kind}_${library})
    add_library(${mine} ${kind} my_lib.cpp)
    target_link_libraries(${mine} PUBLIC TavBluetooth::${library})
    if(library STREQUAL bluetooth)
      target_link_libraries(${mine} PUBLIC firmware)
    endif()
    add_executable(app_${mine} app.cpp)
    target_link_libraries(app_${mine} PRIVATE ${mine})
  endforeach()
endforeach()
TXT

# build FOLDER [cmake options]: builds the project, and runs each of its programs.
build() {
  local folder=$1 program count=0
  cmake -S . -B "$folder" -DCMAKE_BUILD_TYPE=Debug "${cross[@]}" "${@:2}" >"$work/log" 2>&1
  cmake --build "$folder" -j "$(nproc)" >"$work/log" 2>&1
  for program in "$folder"/app_*; do
    [ "$(TAV_BRICK_NAME=Robot1 "${emulator[@]}" "$program" 2>"$work/log")" = Robot1 ]
    count=$((count + 1))
  done
  [ "$count" -eq 6 ]
}
echo "beside a checkout" && build beside
cmake --install "$TAV_BUILD" --prefix "$project/usr" >"$work/log"
echo "installed" && build installed -DINSTALLED=ON "-DCMAKE_PREFIX_PATH=$project/usr"

# pkg-config; a path with a blank is beyond it.
[ $# -eq 0 ] || exit 0
ln -s "$project/usr" "$work/usr"
pkgconfig=$(find "$work/usr/" -name pkgconfig)
# link PACKAGE [FILE or option of g++ ...]: builds the program at the command line, and runs it.
link() {
  echo "pkg-config: $*"
  local flags how=()
  [[ " $* " != *" -static "* ]] || how=(--static)
  read -ra flags <<<"$(PKG_CONFIG_PATH=$pkgconfig pkg-config --cflags --libs "${how[@]}" "$1")"
  g++ -std=c++17 app.cpp my_lib.cpp "${@:2}" -o app "${flags[@]}" 2>"$work/log"
  [ "$(TAV_BRICK_NAME=Robot1 LD_LIBRARY_PATH=$(dirname "$pkgconfig") ./app)" = Robot1 ]
}
link tav-bluetooth-host
link tav-bluetooth-host -static
link tav-bluetooth firmware.cpp
