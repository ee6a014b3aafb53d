#include <foundation/storage/provider/ByteStreamOpenOptions.hpp>

#include <ostream>

namespace foundation::storage::provider
{

namespace
{

/// Write a field and its value. Each enumeration has names for the numbers 0 and 1.
template <class Enumeration>
void writeField(std::ostream& stream, const char* field, Enumeration value, const char* zero, const char* one)
{
    const auto number = static_cast<std::uint32_t>(value);
    stream << field << '=';
    if (number > 1)
    {
        stream << number;
    }
    else
    {
        stream << (number == 0 ? zero : one);
    }
}

} // namespace

std::ostream& operator<<(std::ostream& stream, const ByteStreamOpenOptions& options)
{
    writeField(stream, "{readAccess", options.readAccess, "None", "Allowed");
    writeField(stream, ", create", options.create, "IfMissing", "MustExist");
    writeField(stream, ", truncate", options.truncate, "Discard", "Keep");
    writeField(stream, ", writePosition", options.writePosition, "Append", "AtOffset");
    return stream << '}';
}

} // namespace foundation::storage::provider
