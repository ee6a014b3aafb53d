#pragma once

#include <foundation/Export.hpp>
#include <foundation/storage/provider/fsp.hpp>

#include <iosfwd>
#include <optional>
#include <string>
#include <utility>

namespace foundation::storage::provider
{

/// The reason for a failed operation: a number for programs and an optional detail text for people.
///
/// Numbers other than those of the constants below are allowed.
class FOUNDATION_EXPORT ErrorCode
{
public:
    static const ErrorCode FolderNotEmpty;   ///< 0: the folder to remove is not empty
    static const ErrorCode InvalidLocation;  ///< 1: the IRI, or a name in it, is invalid
    static const ErrorCode PermissionDenied; ///< 2: access denied, or credentials rejected
    static const ErrorCode AlreadyExists;    ///< 3: the destination exists
    static const ErrorCode NotFound;         ///< 4: no such file or folder
    static const ErrorCode InUse;            ///< 6: the file is open
    static const ErrorCode Unknown;          ///< 9: any other failure
    static const ErrorCode Unsupported;      ///< 11: the provider does not support the operation

    explicit ErrorCode(int value, std::optional<std::string> detail = {}) noexcept
        : m_value(value)
        , m_detail(std::move(detail))
    {
    }

    /// Copy `code` with another detail: `ErrorCode(ErrorCode::NotFound, "no such bucket")`.
    ErrorCode(const ErrorCode& code, std::optional<std::string> detail) noexcept
        : ErrorCode(code.m_value, std::move(detail))
    {
    }

    int value() const noexcept { return m_value; }
    const std::optional<std::string>& detail() const noexcept { return m_detail; }

    /// Get the constant's name, or "ErrorCode 5" for a number without one.
    std::string name() const;

    /// Compare the numbers only, not the details.
    friend bool operator==(const ErrorCode& left, const ErrorCode& right) noexcept
    {
        return left.m_value == right.m_value;
    }

    /// Write the name and, if there is a detail, ": " and the detail.
    friend FOUNDATION_EXPORT std::ostream& operator<<(std::ostream& stream, const ErrorCode& code);

private:
    int m_value;
    std::optional<std::string> m_detail;
};

inline const ErrorCode ErrorCode::FolderNotEmpty{0};
inline const ErrorCode ErrorCode::InvalidLocation{1};
inline const ErrorCode ErrorCode::PermissionDenied{2};
inline const ErrorCode ErrorCode::AlreadyExists{3};
inline const ErrorCode ErrorCode::NotFound{4};
inline const ErrorCode ErrorCode::InUse{6};
inline const ErrorCode ErrorCode::Unknown{9};
inline const ErrorCode ErrorCode::Unsupported{11};

} // namespace foundation::storage::provider
