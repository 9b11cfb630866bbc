# The dav tests also check the provider's href parsing directly.
target_include_directories(davprovider_tests PRIVATE ${PROJECT_SOURCE_DIR}/providers/dav/src)
