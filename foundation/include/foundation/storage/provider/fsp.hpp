#pragma once

/// The short name of the provider framework's namespace.
namespace foundation::storage::provider
{
}

namespace fsp = foundation::storage::provider;
