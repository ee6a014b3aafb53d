#pragma once

#include <foundation/Export.hpp>

namespace foundation::usm
{

/// Tell whether the process runs in a context in which long work may be interrupted at its own points. Providers ask
/// before they look for an interruption: a host that never made the context active is not ready for one. Any thread.
FOUNDATION_EXPORT bool isRequiredContextActive() noexcept;

/// Make the required context active for the whole process while this object lives. Scopes are counted: they may nest,
/// overlap, and end on any thread.
class FOUNDATION_EXPORT ContextScope
{
public:
    ContextScope() noexcept;
    ~ContextScope();

    ContextScope(const ContextScope&) = delete;
    ContextScope& operator=(const ContextScope&) = delete;
};

} // namespace foundation::usm
