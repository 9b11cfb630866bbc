# The local provider's listings against readdir, std::filesystem and GIO.
target_link_libraries(qkfl_bench_listing PRIVATE qkfl::localprovider qkfl::storageprovider)
qkfl_bench_peers(qkfl_bench_listing)
