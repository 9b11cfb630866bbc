# The dav tests also run the qkfl tool against the TLS server.
if(TARGET qkfl)
  target_compile_definitions(davprovider_tests PRIVATE QKFL_TOOL_PATH="$<TARGET_FILE:qkfl>")
  add_dependencies(davprovider_tests qkfl)
endif()
