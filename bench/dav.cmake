# The WebDAV provider against Apache httpd on loopback, started as the dav tests start it,
# beside bare libcurl and expat making the same requests.
find_package(CURL REQUIRED)
find_package(EXPAT REQUIRED)
target_sources(qkfl_bench_dav PRIVATE ${PROJECT_SOURCE_DIR}/tests/providers/dav/DavTestSupport.cpp)
target_include_directories(qkfl_bench_dav PRIVATE ${PROJECT_SOURCE_DIR}/tests/providers/dav)
target_link_libraries(qkfl_bench_dav PRIVATE qkfl::davprovider qkfl::zipprovider qkfl::storageprovider
                      CURL::libcurl EXPAT::EXPAT libzip::zip)
