# The shared library exports its interface and nothing else.
add_test(NAME packaging.exports
  COMMAND ${CMAKE_CURRENT_LIST_DIR}/exports.sh $<TARGET_FILE:qkflstorageprovider>
          ${CMAKE_CURRENT_LIST_DIR}/allowed-exports.txt
          ${PROJECT_SOURCE_DIR}/include ${PROJECT_SOURCE_DIR}/platform/include)
set_tests_properties(packaging.exports PROPERTIES LABELS packaging)
