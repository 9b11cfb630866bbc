# Warnings and sanitizers for the project's own targets.

add_library(qkfl_warnings INTERFACE)
target_compile_options(qkfl_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Wold-style-cast
  -Woverloaded-virtual -Wnull-dereference -Wimplicit-fallthrough)
if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  # Boost headers trip a few clang-only warnings; keep the rest.
  target_compile_options(qkfl_warnings INTERFACE -Wno-unused-private-field)
endif()
if(QKFL_WERROR)
  target_compile_options(qkfl_warnings INTERFACE -Werror)
endif()

if(QKFL_SANITIZE)
  string(REPLACE ";" "," _qkfl_san "${QKFL_SANITIZE}")
  add_compile_options(-fsanitize=${_qkfl_san} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${_qkfl_san})
endif()

# Fuzzing: everything is built with libFuzzer's coverage instrumentation and ASan/UBSan;
# only the fuzz targets (fuzz/CMakeLists.txt) link libFuzzer itself.
if(QKFL_BUILD_FUZZERS)
  if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    message(FATAL_ERROR "QKFL_BUILD_FUZZERS needs clang (libFuzzer); use the 'fuzz' preset")
  endif()
  if(QKFL_SANITIZE)
    message(FATAL_ERROR "QKFL_BUILD_FUZZERS brings its own sanitizers; leave QKFL_SANITIZE empty")
  endif()
  add_compile_options(-fsanitize=fuzzer-no-link,address,undefined -fno-omit-frame-pointer
                      -fno-sanitize-recover=all)
  add_link_options(-fsanitize=address,undefined)
endif()

# qkfl_target_defaults(<target>): warnings, hidden symbols.
function(qkfl_target_defaults target)
  target_link_libraries(${target} PRIVATE qkfl_warnings)
  set_target_properties(${target} PROPERTIES
    CXX_VISIBILITY_PRESET hidden
    VISIBILITY_INLINES_HIDDEN ON)
endfunction()
