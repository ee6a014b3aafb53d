#pragma once

#include <foundation/Export.hpp>

#include <exception>

namespace foundation::core::except
{

/// Base of every exception that the framework throws of its own.
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
