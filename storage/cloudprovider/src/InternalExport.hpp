#pragma once

#include <storage/cloudprovider/Export.hpp>

/// Marks classes behind the public surface that the tests of this folder reach. Exported in builds with tests alone.
#ifdef CLOUDPROVIDER_EXPORT_INTERNALS
#define CLOUDPROVIDER_INTERNAL CLOUDPROVIDER_EXPORT
#else
#define CLOUDPROVIDER_INTERNAL
#endif
