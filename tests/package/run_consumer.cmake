# Installs BUILD_DIR into WORK_DIR/prefix and builds the consumer project against it.

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "failed (${rc}): ${ARGN}\n${out}\n${err}")
  endif()
  set(LAST_OUTPUT "${out}" PARENT_SCOPE)
endfunction()

file(REMOVE_RECURSE ${WORK_DIR})
set(prefix ${WORK_DIR}/prefix)
run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})

# 1. find_package(ColloquyUtil CONFIG REQUIRED) and the one imported target.
run(${CMAKE_COMMAND} -S ${CONSUMER_SOURCE} -B ${WORK_DIR}/build -G ${GENERATOR}
    -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_CXX_COMPILER=${CXX_COMPILER}
    "-DCMAKE_CXX_FLAGS=${CONSUMER_FLAGS}" "-DCMAKE_EXE_LINKER_FLAGS=${CONSUMER_FLAGS}")
run(${CMAKE_COMMAND} --build ${WORK_DIR}/build)
run(${WORK_DIR}/build/consumer)
if(NOT LAST_OUTPUT STREQUAL "ColloquyT name [1 '2 ab '3 xyz ]\n")
  message(FATAL_ERROR "consumer printed '${LAST_OUTPUT}'")
endif()

# 2. pkg-config, where the machine has it.
find_program(PKG_CONFIG pkg-config)
if(PKG_CONFIG)
  set(ENV{PKG_CONFIG_PATH} ${prefix}/${LIBDIR}/pkgconfig)
  run(${PKG_CONFIG} --cflags --libs colloquyutil)
  string(STRIP "${LAST_OUTPUT}" flags)
  separate_arguments(flags UNIX_COMMAND "${flags}")
  separate_arguments(extra UNIX_COMMAND "${CONSUMER_FLAGS}")
  run(${CXX_COMPILER} -std=c++17 ${extra} ${CONSUMER_SOURCE}/main.cpp ${flags} -o ${WORK_DIR}/pkgconsumer)
  set(ENV{LD_LIBRARY_PATH} ${prefix}/${LIBDIR})
  run(${WORK_DIR}/pkgconsumer)
  if(NOT LAST_OUTPUT STREQUAL "ColloquyT name [1 '2 ab '3 xyz ]\n")
    message(FATAL_ERROR "pkg-config consumer printed '${LAST_OUTPUT}'")
  endif()
endif()
message(STATUS "consumer built and ran against ${prefix}")
