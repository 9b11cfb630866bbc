# The native-notification tests reach the notifier's test seam.
target_include_directories(localprovider_tests PRIVATE ${PROJECT_SOURCE_DIR}/providers/local/src)
