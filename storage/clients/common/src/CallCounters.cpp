#include <storage/clients/common/CallCounters.hpp>

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

        static const PartIndexes noParts;
        const PartIndexes& parts = operation == Operation::UploadPart ? snapshot.uploadedParts
                                   : operation == Operation::CopyPart ? snapshot.copiedParts
                                                                      : noParts;
        if (!parts.empty())
        {
            out << " (" << formatBytes(count.bytes) << "; parts " << parts << ')';
        }
        else if (count.bytes != 0)
        {
            out << " (" << formatBytes(count.bytes) << ')';
        }
    }
    return out;
}

void CallCounters::countCall(Operation operation) noexcept
{
    m_counts[static_cast<std::size_t>(operation)].calls.fetch_add(1, std::memory_order_relaxed);
}

void CallCounters::countBytes(Operation operation, std::uint64_t bytes) noexcept
{
    m_counts[static_cast<std::size_t>(operation)].bytes.fetch_add(bytes, std::memory_order_relaxed);
}

void CallCounters::countPart(Operation operation, std::size_t index, std::uint64_t bytes)
{
    countBytes(operation, bytes);
    const std::lock_guard lock(m_partsMutex);
    (operation == Operation::UploadPart ? m_uploadedParts : m_copiedParts).insert(index);
}

CallSnapshot CallCounters::snapshot() const
{
    CallSnapshot result;
    for (std::size_t i = 0; i < m_counts.size(); ++i)
    {
        result.operations[i] = {
            m_counts[i].calls.load(std::memory_order_relaxed), m_counts[i].bytes.load(std::memory_order_relaxed)};
    }
    const std::lock_guard lock(m_partsMutex);
    result.uploadedParts = m_uploadedParts;
    result.copiedParts = m_copiedParts;
    return result;
}

} // namespace storage::clients
