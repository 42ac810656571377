cmake_minimum_required(VERSION 3.25)

# Runs a command; its output shows only if it fails.
function(run)
  execute_process(COMMAND ${ARGV} RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE output)
  if(NOT result EQUAL 0)
    list(JOIN ARGV " " command)
    message("${output}")
    message(FATAL_ERROR "${command}: ${result}")
  endif()
  set(output "${output}" PARENT_SCOPE)
endfunction()

set(prefix ${WORK}/prefix)
set(consumer ${WORK}/consumer)
file(REMOVE_RECURSE ${prefix} ${consumer})

run(${CMAKE_COMMAND} --install ${BUILD} --prefix ${prefix})
run(${CMAKE_COMMAND} -S ${CMAKE_CURRENT_LIST_DIR}/Consumer -B ${consumer} -G ${GENERATOR}
    -D CMAKE_MAKE_PROGRAM=${MAKE_PROGRAM} -D CMAKE_PREFIX_PATH=${prefix} -D CMAKE_BUILD_TYPE=${BUILD_TYPE}
    -D CMAKE_CXX_COMPILER=${CXX_COMPILER} -D CMAKE_CXX_FLAGS=${CXX_FLAGS})
run(${CMAKE_COMMAND} --build ${consumer} --parallel 2)

# BS.1770: 997 Hz at 0 dBFS on one channel reads -3.01 LUFS, so at -20 dBFS it reads -23.01.
run(${consumer}/consumer)
if(NOT output STREQUAL "-23.0 LUFS\n")
  message(FATAL_ERROR "997 Hz at -20 dBFS reads: ${output}")
endif()

if(HAS_COMMAND)
  run(${prefix}/bin/vellum --version)
endif()
