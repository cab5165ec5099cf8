# The module's include path reaches the platform's C interfaces and nothing
# of the device layer or the platform's controls. Builds three probes with
# the include directories of the module's own target: the one including the
# C headers must build, the two others must be refused for a missing header.
# Usage: cmake -DBUILD_DIR=<build folder> -P module_boundary.cmake
function(build_probe name result output)
  execute_process(COMMAND ${CMAKE_COMMAND} --build ${BUILD_DIR} --target ${name}
                  RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE out)
  set(${result} ${rc} PARENT_SCOPE)
  set(${output} "${out}" PARENT_SCOPE)
endfunction()

build_probe(layering_module_sees_platform rc out)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "the platform's C headers do not build with the module's include path:\n${out}")
endif()

foreach(probe device control)
  build_probe(layering_module_sees_${probe} rc out)
  if(rc EQUAL 0)
    message(FATAL_ERROR "the module's include path reaches a ${probe} header")
  endif()
  if(NOT out MATCHES "(No such file or directory|file not found)")
    message(FATAL_ERROR "the ${probe} probe failed, but not for a missing header:\n${out}")
  endif()
endforeach()
