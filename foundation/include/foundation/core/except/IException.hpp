#pragma once

#include <foundation/Export.hpp>

#include <exception>

namespace foundation::core::except
{

/// Base class of the framework's own exceptions.
class FOUNDATION_EXPORT IException : public std::exception
{
public:
    ~IException() override;

protected:
    IException() = default;
    IException(const IException&) = default;
    IException& operator=(const IException&) = default;
};

} // namespace foundation::core::except
