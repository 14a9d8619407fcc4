# The options of compiler and linker that Debian builds its packages with, hardened. For the preset `release`. How far the
# compiler goes, CMAKE_BUILD_TYPE says, and packages have no debug information. On other systems the options that matter
# most.
find_program(TAV_DPKG_BUILDFLAGS dpkg-buildflags)
mark_as_advanced(TAV_DPKG_BUILDFLAGS)
if(NOT TAV_DPKG_BUILDFLAGS OR NOT EXISTS /etc/debian_version)
  add_compile_options(-fstack-protector-strong -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2)
  return()
endif()
set(environment "DEB_CXXFLAGS_MAINT_STRIP=-g -O2" "DEB_BUILD_MAINT_OPTIONS=hardening=+all reproducible=-all")
if(CMAKE_CROSSCOMPILING)
  list(APPEND environment DEB_HOST_ARCH=armel)
endif()
foreach(flags CPPFLAGS CXXFLAGS LDFLAGS)
  execute_process(COMMAND env ${environment} ${TAV_DPKG_BUILDFLAGS} --get ${flags}
    OUTPUT_VARIABLE ${flags} OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
endforeach()
# As options, not as CMAKE_..._FLAGS: those are kept from the first time that a folder is configured.
add_compile_options("SHELL:${CPPFLAGS} ${CXXFLAGS}")
add_link_options("SHELL:${LDFLAGS}")
set(TAV_DEBIAN ON)
