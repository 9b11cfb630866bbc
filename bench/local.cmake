# The local provider against system calls, with the memory provider as a copy source.
target_link_libraries(qkfl_bench_local PRIVATE qkfl::localprovider qkfl::memoryprovider qkfl::storageprovider)
