#pragma once

/// Marks what libfoundation.so offers; every other symbol of it is hidden.
#define FOUNDATION_EXPORT __attribute__((visibility("default")))
