#pragma once

/// Export a declaration from libfoundation.so. All other symbols of the library are hidden.
#define FOUNDATION_EXPORT __attribute__((visibility("default")))

/// Hide a private member of an exported class, which would be exported with the class.
#define FOUNDATION_HIDDEN __attribute__((visibility("hidden")))
