# Copies on the local disk against cp, copy_file_range and GIO, with the memory provider as
# the source of a streamed copy.
target_link_libraries(qkfl_bench_copying PRIVATE qkfl::localprovider qkfl::memoryprovider qkfl::storageprovider)
qkfl_bench_peers(qkfl_bench_copying)
