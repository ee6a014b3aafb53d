#pragma once

#include <foundation/core/except/IException.hpp>

namespace foundation::core::except
{

/// Thrown where work can be interrupted, if an interruption was requested.
class FOUNDATION_EXPORT InterruptedException : public IException
{
public:
    ~InterruptedException() override;

    const char* what() const noexcept override;
};

} // namespace foundation::core::except
