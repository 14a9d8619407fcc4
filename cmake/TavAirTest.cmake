# tav_add_air_test(NAME name BRICKS BRICK=PROGRAM ... [OPTIONS option ...])
#
# A test of several bricks on an air of its own, as `tav-air run OPTION ... -- BRICK=PROGRAM ...` plays them. It passes
# when all programs end with status 0; with the option --until BRICK, when that one's does. Time on the air runs 50 times
# as fast as on a real one, unless OPTIONS say otherwise, and the test may take a minute (property TIMEOUT).
if(TAV_AIR_CHECKOUT)
  set(TAV_AIR_COMMAND ${CMAKE_COMMAND} -E env TAV_BUILD=${PROJECT_BINARY_DIR} ${TAV_AIR_CHECKOUT}/sim/tav-air
    CACHE INTERNAL "runs bricks on the simulated air")
else()
  get_target_property(location TavBluetooth::air LOCATION)
  get_filename_component(location ${location}/../../../bin/tav-air ABSOLUTE)
  set(TAV_AIR_COMMAND ${location} CACHE INTERNAL "runs bricks on the simulated air")
endif()

function(tav_add_air_test)
  cmake_parse_arguments(PARSE_ARGV 0 arg "" NAME "BRICKS;OPTIONS")
  if(NOT arg_NAME OR NOT arg_BRICKS OR arg_UNPARSED_ARGUMENTS)
    message(FATAL_ERROR "tav_add_air_test(NAME name BRICKS BRICK=PROGRAM ... [OPTIONS option ...])")
  endif()
  add_test(NAME ${arg_NAME} COMMAND ${TAV_AIR_COMMAND} run --speed 50 ${arg_OPTIONS} -- ${arg_BRICKS})
  set_tests_properties(${arg_NAME} PROPERTIES TIMEOUT 60)
endfunction()
