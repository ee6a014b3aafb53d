#include "UploadPlan.hpp"

#include <storage/cloudprovider/CloudExceptions.hpp>

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <utility>

namespace storage::clients::s3
{

namespace
{

using How = PlannedPart::How;
using Segments = std::vector<PlannedBytes>;

[[noreturn]] void refuse(const std::string& reason)
{
    throw cloudprovider::UnsupportedOperationException("the store takes no such parts: " + reason);
}

PlannedBytes bytesOf(const FilePart& part)
{
    return part.place == PartPlace::Spooled ? PlannedBytes{part.place, part.index, 0, part.size}
                                            : PlannedBytes{part.place, 0, part.offset, part.size};
}

std::uint64_t sizeOf(const Segments& segments)
{
    std::uint64_t size = 0;
    for (const PlannedBytes& bytes : segments)
    {
        size += bytes.size;
    }
    return size;
}

/// Put bytes at the end of a row; ranges that continue each other become one.
void append(Segments& segments, const PlannedBytes& bytes)
{
    if (!segments.empty() && segments.back().place == PartPlace::Object && bytes.place == PartPlace::Object &&
        segments.back().offset + segments.back().size == bytes.offset)
    {
        segments.back().size += bytes.size;
    }
    else if (bytes.size > 0)
    {
        segments.push_back(bytes);
    }
}

/// Cut the first `size` bytes off a row.
Segments takeFront(Segments& segments, std::uint64_t size)
{
    Segments front;
    while (size > 0)
    {
        PlannedBytes& first = segments.front();
        PlannedBytes taken = first;
        taken.size = std::min(size, first.size);
        front.push_back(taken);
        size -= taken.size;
        first.offset += taken.size;
        first.size -= taken.size;
        if (first.size == 0)
        {
            segments.erase(segments.begin());
        }
    }
    return front;
}

/// Plans the bytes between two parts that were sent, which the store takes only in parts of the least size or more;
/// at the end of the file the last part is free.
class PartRun
{
public:
    /// @param room  most parts that it may have
    PartRun(const UploadLimits& limits, bool isLast, std::size_t room)
        : m_limits(limits)
        , m_isLast(isLast)
        , m_room(room)
    {
    }

    void add(const FilePart& part) { append(m_bytes, bytesOf(part)); }

    std::vector<PlannedPart> plan()
    {
        for (std::size_t i = 0; i < m_bytes.size(); ++i)
        {
            const PlannedBytes& bytes = m_bytes[i];
            if (bytes.place == PartPlace::Object && m_limits.maxCopySize > 0)
            {
                addObjectRange(bytes, m_isLast && i + 1 == m_bytes.size());
            }
            else
            {
                append(m_pending, bytes);
            }
        }
        if (!m_isLast && !m_pending.empty() && sizeOf(m_pending) < m_limits.minPartSize)
        {
            fillFromPrevious();
        }
        send();
        return split();
    }

private:
    void addObjectRange(PlannedBytes bytes, bool isTail)
    {
        const std::uint64_t unsent = sizeOf(m_pending);
        if (unsent > 0 && unsent < m_limits.minPartSize)
        {
            const std::uint64_t filling = std::min(bytes.size, m_limits.minPartSize - unsent);
            append(m_pending, {bytes.place, bytes.index, bytes.offset, filling});
            bytes.offset += filling;
            bytes.size -= filling;
        }
        if (bytes.size < m_limits.minPartSize && !isTail)
        {
            append(m_pending, bytes); // too few for a copy
        }
        else if (bytes.size > 0)
        {
            send();
            m_parts.push_back({0, How::Copy, bytes.size, {bytes}});
        }
    }

    void send()
    {
        if (!m_pending.empty())
        {
            const std::uint64_t size = sizeOf(m_pending);
            m_parts.push_back({0, How::Send, size, std::exchange(m_pending, {})});
        }
    }

    /// A rest that is too small, before a part that was sent, joins the part planned last.
    void fillFromPrevious()
    {
        if (m_parts.empty())
        {
            refuse(fmt::format("{} bytes stand alone before a part that was sent", sizeOf(m_pending)));
        }
        PlannedPart& before = m_parts.back();
        const std::uint64_t missing = m_limits.minPartSize - sizeOf(m_pending);
        const bool givesSome = before.how == How::Copy && before.size >= m_limits.minPartSize + missing;
        Segments kept = takeFront(before.bytes, givesSome ? before.size - missing : 0);
        Segments filled = std::move(before.bytes);
        for (const PlannedBytes& bytes : m_pending)
        {
            append(filled, bytes);
        }
        m_pending = std::move(filled);
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

    /// Make each part as many as it takes, of about the same size.
    std::vector<PlannedPart> split()
    {
        const std::uint64_t sendSize = minSendSize();
        std::vector<PlannedPart> pieces;
        for (PlannedPart& part : m_parts)
        {
            for (std::uint64_t left = piecesOf(part, sendSize); left > 0; --left)
            {
                const std::uint64_t size = (part.size + left - 1) / left;
                pieces.push_back({0, part.how, size, takeFront(part.bytes, size)});
                part.size -= size;
            }
        }
        return pieces;
    }

    /// Copies are as few as may be; what is sent is small, since it takes memory on its way.
    std::uint64_t piecesOf(const PlannedPart& part, std::uint64_t sendSize) const
    {
        return part.how == How::Copy ? (part.size + m_limits.maxCopySize - 1) / m_limits.maxCopySize
                                     : std::max<std::uint64_t>(part.size / sendSize, 1);
    }

    /// @return bytes, which any that is cut has at least, so that there are no more parts than there is room for
    std::uint64_t minSendSize() const
    {
        std::uint64_t largest = 0;
        for (const PlannedPart& part : m_parts)
        {
            largest = std::max(largest, part.how == How::Send ? part.size : 0);
        }
        const auto count = [this](std::uint64_t size)
        {
            std::uint64_t pieces = 0;
            for (const PlannedPart& part : m_parts)
            {
                pieces += piecesOf(part, size);
            }
            return pieces;
        };
        std::uint64_t size = m_limits.minPartSize;
        while (size < largest && count(size) > m_room)
        {
            size += size / 8 + 1;
        }
        return size;
    }

    const UploadLimits& m_limits;
    const bool m_isLast;
    const std::size_t m_room; // parts
    Segments m_bytes;
    Segments m_pending;               // planned to be sent with what follows
    std::vector<PlannedPart> m_parts; // each as large as it can be
};

/// Each part of the file by itself.
std::vector<PlannedPart> planEqual(const std::vector<FilePart>& file, const UploadLimits& limits)
{
    std::vector<PlannedPart> parts;
    for (const FilePart& part : file)
    {
        const bool isCopied = part.place == PartPlace::Object && part.size > 0 && part.size <= limits.maxCopySize;
        PlannedPart planned{part.index + 1, isCopied ? How::Copy : How::Send, part.size, {}};
        if (part.place == PartPlace::Uploaded)
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
            std::find_if(next, file.end(), [](const FilePart& part) { return part.place == PartPlace::Uploaded; });
        const std::size_t used = parts.empty() ? 0 : parts.back().number;
        const std::size_t end = sent == file.end() ? limits.maxParts : sent->index;
        PartRun run(limits, sent == file.end(), std::max(end, used) - used);
        for (; next != sent; ++next)
        {
            run.add(*next);
        }
        for (PlannedPart& part : run.plan())
        {
            part.number = (parts.empty() ? 0 : parts.back().number) + 1;
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
    UploadPlan plan;
    for (const FilePart& part : file)
    {
        plan.size += part.size;
    }
    if (plan.size > limits.maxObjectSize)
    {
        refuse(
            fmt::format("they have {} bytes together, and an object has {} at most", plan.size, limits.maxObjectSize));
    }
    plan.parts = limits.equalParts ? planEqual(file, limits) : planJoined(file, limits);
    if (plan.parts.back().number > limits.maxParts)
    {
        refuse(fmt::format("{} of them, and it takes {}", plan.parts.back().number, limits.maxParts));
    }
    for (const PlannedPart& part : plan.parts)
    {
        if (part.size < limits.minPartSize && &part != &plan.parts.back())
        {
            refuse(fmt::format(
                "part {} has {} bytes, and all but the last need {}", part.number, part.size, limits.minPartSize));
        }
    }
    plan.needsVersionCheck = !limits.pinnedCopies && std::any_of(plan.parts.begin(), plan.parts.end(),
                                                         [](const PlannedPart& part) { return part.how == How::Copy; });
    return plan;
}

} // namespace storage::clients::s3
