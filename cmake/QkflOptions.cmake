# Warnings and sanitizers for the project's own targets.

add_library(qkfl_warnings INTERFACE)
target_compile_options(qkfl_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Wold-style-cast
  -Woverloaded-virtual -Wnull-dereference -Wimplicit-fallthrough)
if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  # Boost headers trip a few clang-only warnings; keep the rest.
  target_compile_options(qkfl_warnings INTERFACE -Wno-unused-private-field)
endif()

if(QKFL_SANITIZE)
  string(REPLACE ";" "," _qkfl_san "${QKFL_SANITIZE}")
  add_compile_options(-fsanitize=${_qkfl_san} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${_qkfl_san})
endif()

# qkfl_target_defaults(<target>): warnings, hidden symbols.
function(qkfl_target_defaults target)
  target_link_libraries(${target} PRIVATE qkfl_warnings)
  set_target_properties(${target} PROPERTIES
    CXX_VISIBILITY_PRESET hidden
    VISIBILITY_INLINES_HIDDEN ON)
endfunction()
