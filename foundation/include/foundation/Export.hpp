#pragma once

/// Export a declaration from libfoundation.so. All other symbols of the library are hidden.
#define FOUNDATION_EXPORT __attribute__((visibility("default")))
