# StorageIRI against Boost.URL, GIO's GFile and Poco::URI.
target_link_libraries(qkfl_bench_addressing PRIVATE qkfl::storageprovider)
qkfl_bench_peers(qkfl_bench_addressing)
