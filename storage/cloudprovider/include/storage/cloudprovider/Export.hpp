#pragma once

/// Marks the symbols that libcloudprovider.so exports; all others are hidden.
#define CLOUDPROVIDER_EXPORT __attribute__((visibility("default")))
