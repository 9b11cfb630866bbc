# The platform benchmarks need only the platform layer.
target_link_libraries(qkfl_bench_${area} PRIVATE qkfl::platform)
