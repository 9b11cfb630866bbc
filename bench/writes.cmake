# Durable transactional writes against the same steps by hand and GIO.
target_link_libraries(qkfl_bench_writes PRIVATE qkfl::localprovider qkfl::storageprovider)
qkfl_bench_peers(qkfl_bench_writes)
