# BlueZ's library, as the target BlueZ::bluetooth. Installed beside TavBluetoothConfig.cmake, too.
find_path(BLUEZ_INCLUDE_DIR bluetooth/sdp_lib.h)
find_library(BLUEZ_LIBRARY bluetooth)
mark_as_advanced(BLUEZ_INCLUDE_DIR BLUEZ_LIBRARY)

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(BlueZ REQUIRED_VARS BLUEZ_LIBRARY BLUEZ_INCLUDE_DIR)
if(BlueZ_FOUND AND NOT TARGET BlueZ::bluetooth)
  set(kind UNKNOWN)
  if(BLUEZ_LIBRARY MATCHES "\\.so$")
    set(kind SHARED)  # for the linker to find it behind a shared library, in a sysroot, too
  endif()
  add_library(BlueZ::bluetooth ${kind} IMPORTED GLOBAL)  # wherever a library is linked that links it
  set_target_properties(BlueZ::bluetooth PROPERTIES
    IMPORTED_LOCATION ${BLUEZ_LIBRARY} INTERFACE_INCLUDE_DIRECTORIES ${BLUEZ_INCLUDE_DIR})
endif()
