# qkfl: the built tool end to end, as a child process. The tests build their sample archives
# with the zip tests' support, so they need the providers' builds too.
if(TARGET qkfl AND TARGET qkfl::zipprovider AND TARGET qkfl::memoryprovider)
  add_executable(qkfl_tool_tests ${CMAKE_CURRENT_LIST_DIR}/QkflCliTest.cpp
                 ${CMAKE_CURRENT_SOURCE_DIR}/providers/zip/ZipTestSupport.cpp)
  target_link_libraries(qkfl_tool_tests PRIVATE qkfl::memoryprovider qkfl::zipprovider qkfl::storageprovider
                        libzip::zip GTest::gtest GTest::gtest_main qkfl_warnings)
  target_include_directories(qkfl_tool_tests PRIVATE ${CMAKE_CURRENT_SOURCE_DIR})
  target_compile_definitions(qkfl_tool_tests PRIVATE QKFL_TOOL_PATH="$<TARGET_FILE:qkfl>")
  add_dependencies(qkfl_tool_tests qkfl)
  qkfl_test_pch(qkfl_tool_tests)
  gtest_discover_tests(qkfl_tool_tests DISCOVERY_MODE PRE_TEST DISCOVERY_TIMEOUT 60
                       PROPERTIES TIMEOUT 600 LABELS tool)
endif()
