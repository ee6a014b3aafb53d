#include <foundation/core/except/InterruptedException.hpp>

namespace foundation::core::except
{

InterruptedException::~InterruptedException() = default;

const char* InterruptedException::what() const noexcept
{
    return "interrupted";
}

} // namespace foundation::core::except
