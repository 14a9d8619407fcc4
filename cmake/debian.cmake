# What Debian builds its packages with: the options of compiler and linker, hardened, and the folder for libraries, which
# is below /usr/local as it is below /usr. For the preset `release`. On other systems the options that matter most.
find_program(TAV_DPKG_BUILDFLAGS dpkg-buildflags)
mark_as_advanced(TAV_DPKG_BUILDFLAGS)
if(NOT TAV_DPKG_BUILDFLAGS)
  add_compile_options(-fstack-protector-strong -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2)
  return()
endif()
set(arch)
if(CMAKE_TOOLCHAIN_FILE)
  set(arch -a armel)
endif()
execute_process(COMMAND dpkg-architecture ${arch} -q DEB_HOST_MULTIARCH
  OUTPUT_VARIABLE multiarch OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
set(CMAKE_INSTALL_LIBDIR lib/${multiarch} CACHE PATH "Libraries, below the prefix")
# Without debug information, which packages lose anyway, so no path is to be mapped.
set(environment DEB_CXXFLAGS_MAINT_STRIP=-g "DEB_BUILD_MAINT_OPTIONS=hardening=+all reproducible=-all")
foreach(flags CPPFLAGS CXXFLAGS LDFLAGS)
  execute_process(COMMAND dpkg-architecture ${arch} -c env ${environment} ${TAV_DPKG_BUILDFLAGS} --get ${flags}
    OUTPUT_VARIABLE ${flags} OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
endforeach()
# As options, not as CMAKE_..._FLAGS: those are kept from the first time that a folder is configured.
add_compile_options("SHELL:${CPPFLAGS} ${CXXFLAGS}")
add_link_options("SHELL:${LDFLAGS}")
