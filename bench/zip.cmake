# The zip provider on the local disk, against libzip itself.
target_link_libraries(qkfl_bench_zip PRIVATE qkfl::zipprovider qkfl::localprovider qkfl::storageprovider libzip::zip)
