#include <foundation/storage/provider/ErrorCode.hpp>

#include <ostream>

namespace foundation::storage::provider
{

std::string ErrorCode::name() const
{
    switch (m_value)
    {
    case 0:
        return "FolderNotEmpty";
    case 1:
        return "InvalidLocation";
    case 2:
        return "PermissionDenied";
    case 3:
        return "AlreadyExists";
    case 4:
        return "NotFound";
    case 6:
        return "InUse";
    case 9:
        return "Unknown";
    case 11:
        return "Unsupported";
    default:
        return "ErrorCode " + std::to_string(m_value);
    }
}

std::ostream& operator<<(std::ostream& stream, const ErrorCode& code)
{
    stream << code.name();
    if (code.detail())
    {
        stream << ": " << *code.detail();
    }
    return stream;
}

} // namespace foundation::storage::provider
