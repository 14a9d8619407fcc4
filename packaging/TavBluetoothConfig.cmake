# find_package(TavBluetooth): the targets TavBluetooth::host, TavBluetooth::host_static and TavBluetooth::bluetooth.
include(CMakeFindDependencyMacro)
find_dependency(Threads)
include(${CMAKE_CURRENT_LIST_DIR}/TavBluetoothTargets.cmake)
