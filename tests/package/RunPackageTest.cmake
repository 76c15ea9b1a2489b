# Installs the freshly built library into a scratch prefix, then builds and
# runs a host project that uses find_package(kelma) and kelma::kelma.
file(REMOVE_RECURSE ${WORK_DIR})
execute_process(COMMAND ${CMAKE_COMMAND} --install ${KELMA_BUILD_DIR} --prefix ${WORK_DIR}/prefix
  RESULT_VARIABLE rc OUTPUT_QUIET)
if(rc)
  message(FATAL_ERROR "install failed: ${rc}")
endif()
# The host program is the README's C++ example, as a reader would copy it.
file(READ ${README} readme)
string(REGEX MATCH "```cpp\n([^`]*)```" block "${readme}")
if(NOT CMAKE_MATCH_1)
  message(FATAL_ERROR "the README has no C++ example")
endif()
file(WRITE ${WORK_DIR}/src/main.cpp "${CMAKE_MATCH_1}")
file(COPY ${KELMA_CONSUMER_DIR}/CMakeLists.txt DESTINATION ${WORK_DIR}/src)
execute_process(COMMAND ${CMAKE_COMMAND} -S ${WORK_DIR}/src -B ${WORK_DIR}/build -G Ninja
  -DCMAKE_PREFIX_PATH=${WORK_DIR}/prefix RESULT_VARIABLE rc)
if(rc)
  message(FATAL_ERROR "configuring the host project failed: ${rc}")
endif()
execute_process(COMMAND ${CMAKE_COMMAND} --build ${WORK_DIR}/build RESULT_VARIABLE rc)
if(rc)
  message(FATAL_ERROR "building the host project failed: ${rc}")
endif()
execute_process(COMMAND ${WORK_DIR}/build/kelma_host RESULT_VARIABLE rc)
if(rc)
  message(FATAL_ERROR "the host program failed: ${rc}")
endif()
