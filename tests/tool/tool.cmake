# qkfl: the built tool end to end, as a child process. The tests
# build their sample archives with libzip, so they need the zip provider's build too.
if(TARGET qkfl AND TARGET libzip::zip)
  add_executable(qkfl_tool_tests ${CMAKE_CURRENT_LIST_DIR}/QkflCliTest.cpp ${CMAKE_CURRENT_LIST_DIR}/ToolRunner.cpp)
  target_link_libraries(qkfl_tool_tests PRIVATE
    qkfl::storageprovider libzip::zip GTest::gtest GTest::gtest_main qkfl_warnings)
  target_compile_definitions(qkfl_tool_tests PRIVATE QKFL_TOOL_PATH="$<TARGET_FILE:qkfl>")
  add_dependencies(qkfl_tool_tests qkfl)
  qkfl_test_pch(qkfl_tool_tests)
  gtest_discover_tests(qkfl_tool_tests DISCOVERY_MODE PRE_TEST DISCOVERY_TIMEOUT 60
                       PROPERTIES TIMEOUT 600 LABELS tool)
endif()
