#pragma once

/// Marks what libcloudprovider.so offers to hosts; every other symbol of it is hidden.
#define CLOUDPROVIDER_EXPORT __attribute__((visibility("default")))
