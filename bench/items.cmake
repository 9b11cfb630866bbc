target_link_libraries(qkfl_bench_items PRIVATE qkfl::memoryprovider qkfl::storageprovider)
