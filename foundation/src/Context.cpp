#include <foundation/usm/Context.hpp>

#include <atomic>

namespace foundation::usm
{

namespace
{

std::atomic<unsigned> activeScopes{0};

} // namespace

bool isRequiredContextActive() noexcept
{
    return activeScopes.load() != 0;
}

ContextScope::ContextScope() noexcept
{
    ++activeScopes;
}

ContextScope::~ContextScope()
{
    --activeScopes;
}

} // namespace foundation::usm
