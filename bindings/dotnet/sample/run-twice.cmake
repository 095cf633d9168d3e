# Runs the sample twice over a fresh data directory, as two launches of a
# game: the first must print no recommendation, the second at least one.
#   cmake -DMONO=mono -DSAMPLE=sample.exe -DDATA_DIR=dir -P run-twice.cmake
file(REMOVE_RECURSE "${DATA_DIR}")
file(MAKE_DIRECTORY "${DATA_DIR}")
foreach(launch 1 2)
  execute_process(COMMAND "${MONO}" "${SAMPLE}" --data-dir "${DATA_DIR}"
    RESULT_VARIABLE status OUTPUT_VARIABLE output ERROR_VARIABLE errors TIMEOUT 120)
  message("launch ${launch}:\n${output}${errors}")
  if(NOT status EQUAL 0)
    message(FATAL_ERROR "launch ${launch} failed: ${status}")
  endif()
  if(NOT output MATCHES "^([0-9]+) recommendations\n")
    message(FATAL_ERROR "launch ${launch} printed no count of recommendations")
  endif()
  set(count "${CMAKE_MATCH_1}")
  if(launch EQUAL 1 AND NOT count EQUAL 0)
    message(FATAL_ERROR "the first launch has no earlier session, yet printed ${count} recommendations")
  endif()
  if(launch EQUAL 2 AND count LESS 1)
    message(FATAL_ERROR "the second launch printed no recommendation from the first")
  endif()
endforeach()
file(REMOVE_RECURSE "${DATA_DIR}")
