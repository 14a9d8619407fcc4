# The options of compiler and linker that Debian builds its packages with, hardened. For the preset `package`.
set(environment "DEB_BUILD_MAINT_OPTIONS=hardening=+all reproducible=-fixfilepath")  # that one breaks at a blank
if(CMAKE_CROSSCOMPILING)
  list(APPEND environment DEB_HOST_ARCH=armel)
endif()
foreach(flags CPPFLAGS CXXFLAGS LDFLAGS)
  execute_process(COMMAND env ${environment} dpkg-buildflags --get ${flags}
    OUTPUT_VARIABLE ${flags} OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
endforeach()
# As options, not as CMAKE_..._FLAGS: those are kept from the first time that a folder is configured.
add_compile_options("SHELL:${CPPFLAGS} ${CXXFLAGS}")
add_link_options("SHELL:${LDFLAGS}")
