#pragma once

/// Marks the symbols that libcloudprovider.so exports; all others are hidden.
#define CLOUDPROVIDER_EXPORT __attribute__((visibility("default")))

/// Hide a private member of an exported class, which would be exported with the class.
#define CLOUDPROVIDER_HIDDEN __attribute__((visibility("hidden")))
