# Installs the built tree into WORK/prefix and builds the consumer project
# against it with find_package(orsm), then compiles the same C file with the
# flags pkg-config gives, and runs both programs.
file(REMOVE_RECURSE ${WORK})
execute_process(COMMAND ${CMAKE_COMMAND} --install ${BIN} --prefix ${WORK}/prefix
                RESULT_VARIABLE rc OUTPUT_QUIET)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "install failed")
endif()
execute_process(COMMAND ${CMAKE_COMMAND} -S ${SRC}/tests/install -B ${WORK}/build
                        -DCMAKE_PREFIX_PATH=${WORK}/prefix -DCMAKE_BUILD_TYPE=Release
                RESULT_VARIABLE rc OUTPUT_QUIET)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "configuring the consumer failed")
endif()
execute_process(COMMAND ${CMAKE_COMMAND} --build ${WORK}/build RESULT_VARIABLE rc OUTPUT_QUIET)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "building the consumer failed")
endif()
execute_process(COMMAND ${WORK}/build/consumer RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "the consumer built with find_package failed")
endif()
# pkg-config
find_program(PKG_CONFIG pkg-config)
if(PKG_CONFIG)
  set(ENV{PKG_CONFIG_PATH} ${WORK}/prefix/lib/pkgconfig:${WORK}/prefix/lib64/pkgconfig)
  execute_process(COMMAND ${PKG_CONFIG} --cflags --libs orsm OUTPUT_VARIABLE flags
                  RESULT_VARIABLE rc OUTPUT_STRIP_TRAILING_WHITESPACE)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "pkg-config does not know orsm")
  endif()
  separate_arguments(flags UNIX_COMMAND "${flags}")
  execute_process(COMMAND cc -std=c99 ${SRC}/tests/install/consumer.c ${flags} -fopenmp
                          -Wl,-rpath,${WORK}/prefix/lib -o ${WORK}/consumer_pc
                  RESULT_VARIABLE rc)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "building the consumer with pkg-config flags failed")
  endif()
  execute_process(COMMAND ${WORK}/consumer_pc RESULT_VARIABLE rc)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "the consumer built with pkg-config failed")
  endif()
else()
  message(STATUS "pkg-config not found: only the CMake package was checked")
endif()
