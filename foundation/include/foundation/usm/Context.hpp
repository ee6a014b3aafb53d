#pragma once

#include <foundation/Export.hpp>

namespace foundation::usm
{

/// Tell whether long-running work of this process may be interrupted. Providers check this before they check for a
/// pending interruption, because a host that has not activated the context does not expect one. Any thread may call
/// this.
FOUNDATION_EXPORT bool isRequiredContextActive() noexcept;

/// Activate the context for the whole process during this object's lifetime. Scopes are counted: they may nest, overlap
/// and end on any thread.
class FOUNDATION_EXPORT ContextScope
{
public:
    ContextScope() noexcept;
    ~ContextScope();

    ContextScope(const ContextScope&) = delete;
    ContextScope& operator=(const ContextScope&) = delete;
};

} // namespace foundation::usm
