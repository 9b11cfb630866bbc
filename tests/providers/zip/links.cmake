# The zip provider's tests build archives with libzip and keep them in memory and on disk.
target_link_libraries(zipprovider_tests PRIVATE qkfl::memoryprovider qkfl::localprovider libzip::zip)
