target_link_libraries(qkfl_bench_memory PRIVATE qkfl::memoryprovider qkfl::storageprovider)
