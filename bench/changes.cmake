# Change detection of the local provider against Poco's DirectoryWatcher and GIO's monitor.
target_link_libraries(qkfl_bench_changes PRIVATE qkfl::localprovider qkfl::storageprovider)
qkfl_bench_peers(qkfl_bench_changes)
