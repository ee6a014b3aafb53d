#include <foundation/core/except/IException.hpp>

namespace foundation::core::except
{

IException::~IException() = default;

} // namespace foundation::core::except
