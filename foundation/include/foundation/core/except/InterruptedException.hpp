#pragma once

#include <foundation/core/except/IException.hpp>

namespace foundation::core::except
{

/// Thrown at a point where work may stop, after somebody asked for an interruption.
class FOUNDATION_EXPORT InterruptedException : public IException
{
public:
    ~InterruptedException() override;

    const char* what() const noexcept override;
};

} // namespace foundation::core::except
