# The zip provider's tests build archives with libzip and keep them in memory.
target_link_libraries(zipprovider_tests PRIVATE qkfl::memoryprovider libzip::zip)
