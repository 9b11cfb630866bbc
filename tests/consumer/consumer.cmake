# The consumer programs, built through each of the ways an application takes the library.
# Only in unsanitized builds: they compile the library again or link the installed one.
if(NOT QKFL_SANITIZE)
  add_test(NAME consumer.add_subdirectory
    COMMAND ${CMAKE_CURRENT_LIST_DIR}/check.sh subdirectory ${PROJECT_SOURCE_DIR}
            ${CMAKE_BINARY_DIR}/consumer-subdirectory)
  add_test(NAME consumer.find_package
    COMMAND ${CMAKE_CURRENT_LIST_DIR}/check.sh package ${PROJECT_SOURCE_DIR}
            ${CMAKE_BINARY_DIR}/consumer-package ${CMAKE_BINARY_DIR})
  add_test(NAME consumer.pkg_config
    COMMAND ${CMAKE_CURRENT_LIST_DIR}/check.sh pkgconfig ${PROJECT_SOURCE_DIR}
            ${CMAKE_BINARY_DIR}/consumer-pkgconfig ${CMAKE_BINARY_DIR})
  set_tests_properties(consumer.add_subdirectory consumer.find_package consumer.pkg_config PROPERTIES
    TIMEOUT 1200 LABELS consumer RUN_SERIAL TRUE)
endif()
