#pragma once

// Marks a type or function as part of libqkflstorageprovider's exported interface. The
// library is built with hidden visibility: a type whose identity crosses the boundary
// (exceptions, interfaces, anything caught or dynamic_cast) must carry this, or the caller
// gets its own copy of the type information and `catch` and `dynamic_cast` miss it.
#define QKFL_STORAGE_EXPORT __attribute__((visibility("default")))
