# Dependencies point from the device layer to the platform only: no file of
# platform/ includes a device header, and the platform's build names no
# device target or folder.
# Usage: cmake -DSOURCE_DIR=<source folder> -P platform_uses_no_device.cmake
file(GLOB_RECURSE sources ${SOURCE_DIR}/platform/*.h ${SOURCE_DIR}/platform/*.hpp ${SOURCE_DIR}/platform/*.c
     ${SOURCE_DIR}/platform/*.cpp)
set(offences "")
foreach(file IN LISTS sources)
  file(STRINGS ${file} lines REGEX "^[ \t]*#[ \t]*include[ \t]*[<\"]([^>\"]*/)?device/")
  foreach(line IN LISTS lines)
    string(APPEND offences "\n${file}: ${line}")
  endforeach()
endforeach()
file(GLOB_RECURSE builds ${SOURCE_DIR}/platform/CMakeLists.txt ${SOURCE_DIR}/platform/*.cmake)
foreach(file IN LISTS builds)
  # Code lines only: comments may speak of the device layer.
  file(STRINGS ${file} lines REGEX "^[^#]*(device|fplane|yangdb)")
  foreach(line IN LISTS lines)
    string(APPEND offences "\n${file}: ${line}")
  endforeach()
endforeach()
if(offences)
  message(FATAL_ERROR "the platform uses the device layer:${offences}")
endif()
