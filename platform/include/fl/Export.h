#pragma once

// Marks a platform type or function as part of the shared library's exported interface.
// The platform layer is linked whole into libqkflstorageprovider, which is built with
// hidden visibility; everything a caller names must carry this.
#define QKFL_PLATFORM_EXPORT __attribute__((visibility("default")))
