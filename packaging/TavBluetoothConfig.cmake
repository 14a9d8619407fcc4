# find_package(TavBluetooth): the targets TavBluetooth::host, TavBluetooth::host_static and TavBluetooth::bluetooth; where
# the simulated air is installed, too, TavBluetooth::air and the function tav_add_air_test.
include(CMakeFindDependencyMacro)
find_dependency(Threads)
list(APPEND CMAKE_MODULE_PATH ${CMAKE_CURRENT_LIST_DIR})
find_dependency(BlueZ)
list(POP_BACK CMAKE_MODULE_PATH)
get_filename_component(here ${CMAKE_CURRENT_LIST_DIR} REALPATH)  # where /lib is a link to /usr/lib: the latter
include(${here}/TavBluetoothTargets.cmake)
if(EXISTS ${here}/TavBluetoothAirTargets.cmake)
  include(${here}/TavBluetoothAirTargets.cmake)
  include(${here}/TavAirTest.cmake)
endif()
