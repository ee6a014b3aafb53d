#include "UploadPlan.hpp"

#include <storage/cloudprovider/CloudExceptions.hpp>

#include <fmt/format.h>

#include <algorithm>
#include <iterator>

namespace storage::clients::s3
{

namespace
{

using How = PlannedPart::How;
using Row = std::vector<PlannedBytes>;

[[noreturn]] void refuse(const std::string& reason)
{
    throw cloudprovider::UnsupportedOperationException("the store takes no such parts: " + reason);
}

PlannedBytes bytesOf(const FilePart& part)
{
    return part.place == PartPlace::Client ? PlannedBytes{part.place, part.index, 0, part.size}
                                           : PlannedBytes{part.place, 0, part.offset, part.size};
}

std::uint64_t sizeOf(const Row& row)
{
    std::uint64_t size = 0;
    for (const PlannedBytes& bytes : row)
    {
        size += bytes.size;
    }
    return size;
}

/// Put bytes at the end of a row; ranges that continue each other become one.
void append(Row& row, const PlannedBytes& bytes)
{
    if (!row.empty() && row.back().place == PartPlace::Object && bytes.place == PartPlace::Object &&
        row.back().offset + row.back().size == bytes.offset)
    {
        row.back().size += bytes.size;
    }
    else if (bytes.size > 0)
    {
        row.push_back(bytes);
    }
}

/// Cut the first `size` bytes off a row.
Row takeFront(Row& row, std::uint64_t size)
{
    Row front;
    while (size > 0)
    {
        PlannedBytes& first = row.front();
        PlannedBytes taken = first;
        taken.size = std::min(size, first.size);
        front.push_back(taken);
        size -= taken.size;
        first.offset += taken.size;
        first.size -= taken.size;
        if (first.size == 0)
        {
            row.erase(row.begin());
        }
    }
    return front;
}

/// Plans the bytes between two parts that were sent, which the store takes only in parts of the least size or more;
/// at the end of the file the last part is free.
class Stretch
{
public:
    Stretch(const UploadLimits& limits, bool isLast)
        : m_limits(limits)
        , m_isLast(isLast)
        , m_sendSize(limits.leastPart)
    {
    }

    void add(const FilePart& part)
    {
        append(m_bytes, bytesOf(part));
        m_sendSize = std::max(m_sendSize, part.size);
    }

    std::vector<PlannedPart> plan()
    {
        for (std::size_t i = 0; i < m_bytes.size(); ++i)
        {
            const PlannedBytes& bytes = m_bytes[i];
            if (bytes.place == PartPlace::Object && m_limits.largestCopy > 0)
            {
                takeFromObject(bytes, m_isLast && i + 1 == m_bytes.size());
            }
            else
            {
                append(m_unsent, bytes);
            }
        }
        if (!m_isLast && !m_unsent.empty() && sizeOf(m_unsent) < m_limits.leastPart)
        {
            fillFromBefore();
        }
        send();
        return std::move(m_parts);
    }

private:
    void takeFromObject(PlannedBytes bytes, bool isTail)
    {
        const std::uint64_t unsent = sizeOf(m_unsent);
        if (unsent > 0 && unsent < m_limits.leastPart)
        {
            const std::uint64_t filling = std::min(bytes.size, m_limits.leastPart - unsent);
            append(m_unsent, {bytes.place, bytes.index, bytes.offset, filling});
            bytes.offset += filling;
            bytes.size -= filling;
        }
        if (bytes.size < m_limits.leastPart && !isTail)
        {
            append(m_unsent, bytes); // too few for a copy
        }
        else if (bytes.size > 0)
        {
            send();
            copy(bytes);
        }
    }

    /// As few copies as it takes, of about the same size.
    void copy(PlannedBytes bytes)
    {
        for (std::uint64_t left = (bytes.size + m_limits.largestCopy - 1) / m_limits.largestCopy; left > 0; --left)
        {
            const std::uint64_t size = (bytes.size + left - 1) / left;
            m_parts.push_back({0, How::Copy, size, {{bytes.place, bytes.index, bytes.offset, size}}});
            bytes.offset += size;
            bytes.size -= size;
        }
    }

    /// In parts that are small, so that they need little memory on their way, but no more than the file has.
    void send()
    {
        while (!m_unsent.empty())
        {
            const std::uint64_t left = sizeOf(m_unsent);
            const std::uint64_t size = left < 2 * m_sendSize ? left : m_sendSize;
            m_parts.push_back({0, How::Send, size, takeFront(m_unsent, size)});
        }
    }

    /// A rest that is too small, before a part that was sent, joins the part planned last.
    void fillFromBefore()
    {
        if (m_parts.empty())
        {
            refuse(fmt::format("{} bytes stand alone before a part that was sent", sizeOf(m_unsent)));
        }
        PlannedPart& before = m_parts.back();
        const std::uint64_t missing = m_limits.leastPart - sizeOf(m_unsent);
        const bool givesSome = before.how == How::Copy && before.size >= m_limits.leastPart + missing;
        Row kept = takeFront(before.bytes, givesSome ? before.size - missing : 0);
        Row filled = std::move(before.bytes);
        for (const PlannedBytes& bytes : m_unsent)
        {
            append(filled, bytes);
        }
        m_unsent = std::move(filled);
        if (givesSome)
        {
            before.bytes = std::move(kept);
            before.size -= missing;
        }
        else
        {
            m_parts.pop_back();
        }
    }

    const UploadLimits& m_limits;
    const bool m_isLast;
    std::uint64_t m_sendSize; // bytes
    Row m_bytes;
    Row m_unsent; // planned to be sent with what follows
    std::vector<PlannedPart> m_parts;
};

/// Each part of the file by itself.
std::vector<PlannedPart> planEqual(const std::vector<FilePart>& file, const UploadLimits& limits)
{
    std::vector<PlannedPart> parts;
    for (const FilePart& part : file)
    {
        const bool isCopied = part.place == PartPlace::Object && part.size > 0 && part.size <= limits.largestCopy;
        PlannedPart planned{part.index + 1, isCopied ? How::Copy : How::Send, part.size, {}};
        if (part.place == PartPlace::Store)
        {
            planned.how = How::Keep;
        }
        else
        {
            append(planned.bytes, bytesOf(part));
        }
        parts.push_back(std::move(planned));
    }
    for (std::size_t i = 1; i < parts.size(); ++i)
    {
        const bool isLast = i + 1 == parts.size();
        if (isLast ? parts[i].size > parts[0].size : parts[i].size != parts[0].size)
        {
            refuse(fmt::format("part {} has {} bytes, and all but the last must have the {} of the first",
                parts[i].number, parts[i].size, parts[0].size));
        }
    }
    return parts;
}

std::vector<PlannedPart> planJoined(const std::vector<FilePart>& file, const UploadLimits& limits)
{
    std::vector<PlannedPart> parts;
    for (auto next = file.begin(); next != file.end();)
    {
        const auto sent =
            std::find_if(next, file.end(), [](const FilePart& part) { return part.place == PartPlace::Store; });
        Stretch stretch(limits, sent == file.end());
        for (; next != sent; ++next)
        {
            stretch.add(*next);
        }
        for (PlannedPart& part : stretch.plan())
        {
            part.number = parts.empty() ? 1 : parts.back().number + 1;
            parts.push_back(std::move(part));
        }
        if (sent != file.end())
        {
            if (!parts.empty() && parts.back().number > sent->index)
            {
                refuse(fmt::format("too many of them stand before part {}", sent->index + 1));
            }
            parts.push_back({sent->index + 1, How::Keep, sent->size, {}});
            ++next;
        }
    }
    if (parts.empty())
    {
        parts.push_back({1, How::Send, 0, {}}); // an object without bytes
    }
    return parts;
}

} // namespace

UploadPlan planUpload(const std::vector<FilePart>& file, const UploadLimits& limits)
{
    UploadPlan plan{limits.equalParts ? planEqual(file, limits) : planJoined(file, limits)};
    if (plan.parts.back().number > limits.mostParts)
    {
        refuse(fmt::format("{} of them, and it takes {}", plan.parts.back().number, limits.mostParts));
    }
    for (const PlannedPart& part : plan.parts)
    {
        plan.size += part.size;
        if (part.size < limits.leastPart && &part != &plan.parts.back())
        {
            refuse(fmt::format(
                "part {} has {} bytes, and all but the last need {}", part.number, part.size, limits.leastPart));
        }
    }
    plan.looksAgain = !limits.pinnedCopies && std::any_of(plan.parts.begin(), plan.parts.end(),
                                                  [](const PlannedPart& part) { return part.how == How::Copy; });
    return plan;
}

} // namespace storage::clients::s3
