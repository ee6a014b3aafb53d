#include <storage/clients/common/StoreCounters.hpp>

#include <fmt/format.h>

#include <ostream>
#include <string_view>

namespace storage::clients
{

std::uint64_t CallSnapshot::totalCalls() const noexcept
{
    std::uint64_t total = 0;
    for (const Count& count : operations)
    {
        total += count.calls;
    }
    return total;
}

std::string formatBytes(std::uint64_t bytes)
{
    constexpr std::array<std::string_view, 6> units{"KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
    if (bytes < 1024)
    {
        return fmt::format("{} B", bytes);
    }
    double value = static_cast<double>(bytes) / 1024;
    std::size_t unit = 0;
    // What would be printed as "1024.0" belongs to the next unit.
    while (value >= 1023.95 && unit + 1 < units.size())
    {
        value /= 1024;
        ++unit;
    }
    return fmt::format("{:.1f} {}", value, units[unit]);
}

std::ostream& operator<<(std::ostream& out, const CallSnapshot& snapshot)
{
    if (snapshot.totalCalls() == 0)
    {
        return out << "no calls";
    }
    const char* separator = "";
    for (const Operation operation : allOperations)
    {
        const CallSnapshot::Count& count = snapshot[operation];
        if (count.calls == 0)
        {
            continue;
        }
        out << separator << operation << ' ' << count.calls;
        separator = ", ";

        if (!count.parts.empty())
        {
            out << " (" << formatBytes(count.bytes) << "; parts " << count.parts << ')';
        }
        else if (count.bytes != 0)
        {
            out << " (" << formatBytes(count.bytes) << ')';
        }
    }
    return out;
}

} // namespace storage::clients
