# Warnings are errors everywhere in our own code.
add_library(pplus_warnings INTERFACE)
target_compile_options(pplus_warnings INTERFACE
  -Wall -Wextra -Werror -Wshadow -Wnon-virtual-dtor -Wcast-align
  -Wformat=2 -Wimplicit-fallthrough -Wnull-dereference -Wold-style-cast
  $<$<CXX_COMPILER_ID:GNU>:-Wno-format-nonliteral -Wuseless-cast>
  $<$<CXX_COMPILER_ID:Clang>:-Wno-format-nonliteral>)

# Run paths: bin/ and tests/ find lib/, libraries find each other in lib/.
function(pplus_exe_rpath target)
  set_target_properties(${target} PROPERTIES BUILD_RPATH "$ORIGIN/../lib")
endfunction()
function(pplus_lib_rpath target)
  set_target_properties(${target} PROPERTIES BUILD_RPATH "$ORIGIN")
endfunction()
