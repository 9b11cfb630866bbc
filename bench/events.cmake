# The events benchmark also polls a folder of the in-memory provider.
target_link_libraries(qkfl_bench_events PRIVATE qkfl::memoryprovider qkfl::storageprovider)
