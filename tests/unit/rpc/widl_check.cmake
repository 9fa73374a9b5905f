# Compiles the interface definition with Wine's IDL compiler into a fresh directory: client stub,
# server stub and header, interpreted (-Oif) stubs, pedantic warnings on. Fails on a non-zero exit
# or on any diagnostic at all.
#   cmake -DWIDL=<compiler> -DIDL=<file> -DOUT=<directory> -P widl_check.cmake
file(REMOVE_RECURSE "${OUT}")
file(MAKE_DIRECTORY "${OUT}")
execute_process(
  COMMAND "${WIDL}" -W -Oif -c -s -h "${IDL}"
  WORKING_DIRECTORY "${OUT}"
  RESULT_VARIABLE rc
  OUTPUT_VARIABLE out
  ERROR_VARIABLE err)
if(NOT rc EQUAL 0 OR NOT "${out}${err}" STREQUAL "")
  message(FATAL_ERROR "widl failed (exit ${rc}):\n${out}${err}")
endif()
get_filename_component(base "${IDL}" NAME_WE)
foreach(generated "${base}.h" "${base}_c.c" "${base}_s.c")
  if(NOT EXISTS "${OUT}/${generated}")
    message(FATAL_ERROR "widl did not write ${generated}")
  endif()
endforeach()
