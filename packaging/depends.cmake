# Read by cpack: sets what the package of each component depends on, from its binary, named in TAV_BINARIES as
# COMPONENT=FILE; `work` is a folder to work in, TAV_PYTHON the versions of Python that its module is for. CPack can ask
# dpkg-shlibdeps itself, but then adds scripts that call ldconfig, a trigger's work.
file(WRITE ${work}/debian/control "")  # dpkg-shlibdeps wants one
foreach(entry IN LISTS TAV_BINARIES)
  string(REGEX MATCH "^([A-Z]+)=(.*)$" entry "${entry}")
  set(component ${CMAKE_MATCH_1})
  if(CPACK_DEBIAN_PACKAGE_ARCHITECTURE)  # of another machine, whose packages dpkg-shlibdeps does not know
    set(depends libbluetooth3)
    foreach(package libc6 libgcc-s1 libstdc++6)
      execute_process(COMMAND dpkg-query -W -f \${Version} ${package}-${CPACK_DEBIAN_PACKAGE_ARCHITECTURE}-cross
        OUTPUT_VARIABLE version COMMAND_ERROR_IS_FATAL ANY)
      string(REGEX MATCH "^[0-9.]+" version ${version})
      string(APPEND depends ", ${package} (>= ${version})")
    endforeach()
  else()
    execute_process(COMMAND dpkg-shlibdeps -O --ignore-missing-info ${CMAKE_MATCH_2} WORKING_DIRECTORY ${work}
      OUTPUT_VARIABLE depends ERROR_QUIET OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
    string(REGEX REPLACE ".*shlibs:Depends=" "" depends "${depends}")
  endif()
  if(component STREQUAL SIM)
    string(APPEND depends ", python3 (>= 3.11)")
  endif()
  if(component STREQUAL PYTHON)
    string(APPEND depends ", ${TAV_PYTHON}")
  endif()
  set(CPACK_DEBIAN_${component}_PACKAGE_DEPENDS ${depends})
endforeach()
