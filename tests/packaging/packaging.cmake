# The shared library exports its interface and nothing else.
add_test(NAME packaging.exports
  COMMAND ${CMAKE_CURRENT_LIST_DIR}/exports.sh $<TARGET_FILE:qkflstorageprovider>
          ${CMAKE_CURRENT_LIST_DIR}/allowed-exports.txt
          ${PROJECT_SOURCE_DIR}/include ${PROJECT_SOURCE_DIR}/platform/include)
set_tests_properties(packaging.exports PROPERTIES LABELS packaging)

# The API reference builds without a warning.
find_program(QKFL_DOXYGEN doxygen)
if(QKFL_DOXYGEN)
  add_test(NAME packaging.doxygen
    COMMAND sh -c "{ cat Doxyfile; echo OUTPUT_DIRECTORY=${CMAKE_BINARY_DIR}/docs; echo WARN_AS_ERROR=FAIL_ON_WARNINGS; } | '${QKFL_DOXYGEN}' -"
    WORKING_DIRECTORY ${PROJECT_SOURCE_DIR})
  set_tests_properties(packaging.doxygen PROPERTIES LABELS packaging)
endif()
