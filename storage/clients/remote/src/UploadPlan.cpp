#include "UploadPlan.hpp"

#include <storage/cloudprovider/CloudExceptions.hpp>

#include <fmt/format.h>

#include <algorithm>
#include <deque>
#include <iterator>
#include <utility>

namespace storage::clients
{

namespace
{

using How = PlannedPart::How;
using Segments = std::deque<PlannedBytes>;

[[noreturn]] void refuse(const std::string& reason)
{
    throw cloudprovider::UnsupportedOperationException("the store would refuse the upload: " + reason);
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

/// Append bytes to the segments; adjacent ranges of the object, or of the source, are merged.
void append(Segments& segments, const PlannedBytes& bytes)
{
    if (!segments.empty() && segments.back().place == bytes.place && bytes.place != PartPlace::Spooled &&
        segments.back().offset + segments.back().size == bytes.offset)
    {
        segments.back().size += bytes.size;
    }
    else if (bytes.size > 0)
    {
        segments.push_back(bytes);
    }
}

/// Remove the first `size` bytes from the segments and return them.
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
            segments.pop_front();
        }
    }
    return front;
}

/// Which ranges of the stored object the store takes.
class TakeRules
{
public:
    /// @param ends  of its parts; empty: any range is taken
    TakeRules(const StoreAbilities& store, const std::vector<std::uint64_t>& ends)
        : m_ends(ends)
        , m_maxSize(ends.empty() ? store.maxTakeSize : store.maxObjectSize)
    {
    }

    How how() const noexcept { return m_ends.empty() ? How::Copy : How::Take; }

    /// Maximum bytes of a range; 0: none is taken.
    std::uint64_t maxSize() const noexcept { return m_maxSize; }

    /// The first offset, from this one, at which a range may begin.
    std::uint64_t beginFrom(std::uint64_t offset) const
    {
        const auto end = std::lower_bound(m_ends.begin(), m_ends.end(), offset);
        return offset == 0 || end == m_ends.end() ? offset : *end;
    }

    /// The last offset, up to this one, at which a range may end; 0: there is none.
    std::uint64_t endUpTo(std::uint64_t offset) const
    {
        const auto behind = std::upper_bound(m_ends.begin(), m_ends.end(), offset);
        return m_ends.empty() ? offset : behind == m_ends.begin() ? 0 : *std::prev(behind);
    }

    /// Where a range that could end here ends if bytes that are sent follow. A small part is sent with them: otherwise
    /// a file that grows by little would get one more part each time.
    std::uint64_t endBeforeSent(std::uint64_t offset, std::uint64_t minPartSize) const
    {
        const auto end = std::lower_bound(m_ends.begin(), m_ends.end(), offset);
        const std::uint64_t begin = end == m_ends.begin() ? 0 : *std::prev(end);
        return m_ends.empty() || offset - begin >= minPartSize ? offset : begin;
    }

    /// The parts that the new object gets from a range.
    std::size_t countIn(const PlannedBytes& bytes) const
    {
        const auto first = std::upper_bound(m_ends.begin(), m_ends.end(), bytes.offset);
        const auto last = std::upper_bound(first, m_ends.end(), bytes.offset + bytes.size);
        return static_cast<std::size_t>(last - first);
    }

private:
    const std::vector<std::uint64_t>& m_ends;
    const std::uint64_t m_maxSize;
};

/// Plans the run of bytes between two uploaded parts. Each part of it must have the minimum size; only the last part of
/// the file may be smaller.
class PartRun
{
public:
    /// @param isLast    whether it ends the file
    /// @param maxParts  maximum number of parts
    PartRun(const StoreAbilities& store, const TakeRules& takes, bool isLast, std::size_t maxParts)
        : m_store(store)
        , m_takes(takes)
        , m_isLast(isLast)
        , m_maxParts(maxParts)
    {
    }

    void add(const FilePart& part) { append(m_bytes, bytesOf(part)); }

    std::vector<PlannedPart> plan()
    {
        m_size = sizeOf(m_bytes);
        std::vector<PlannedPart> parts = planCopies();
        while (parts.size() > m_maxParts && m_minCopySize <= m_size)
        {
            m_minCopySize *= 2;
            parts = planCopies();
        }
        return parts;
    }

private:
    std::vector<PlannedPart> planCopies()
    {
        m_parts.clear();
        for (std::size_t i = 0; i < m_bytes.size(); ++i)
        {
            const PlannedBytes& bytes = m_bytes[i];
            if (bytes.place == PartPlace::Object && m_takes.maxSize() > 0)
            {
                addObjectRange(bytes, m_isLast && i + 1 == m_bytes.size());
            }
            else
            {
                append(m_pending, bytes);
            }
        }
        if (!m_isLast && !m_pending.empty() && sizeOf(m_pending) < m_store.minPartSize)
        {
            fillFromPrevious();
        }
        send();
        return split();
    }

    void addObjectRange(const PlannedBytes& bytes, bool isTail)
    {
        const std::uint64_t unsent = sizeOf(m_pending);
        const bool mustSend = unsent > 0 || m_takes.beginFrom(bytes.offset) > bytes.offset;
        const std::uint64_t missing = mustSend && unsent < m_store.minPartSize ? m_store.minPartSize - unsent : 0;
        const std::uint64_t end = bytes.offset + bytes.size;
        const std::uint64_t copyBegin = std::min(m_takes.beginFrom(std::min(bytes.offset + missing, end)), end);
        std::uint64_t copyEnd = std::max(m_takes.endUpTo(end), copyBegin);
        const bool endsFile = isTail && copyEnd == end;
        copyEnd = endsFile ? end : std::max(m_takes.endBeforeSent(copyEnd, m_store.minPartSize), copyBegin);
        const bool isLastCopy = endsFile && (copyBegin == bytes.offset + missing || m_minCopySize <= m_size);
        const bool isCopied = copyEnd > copyBegin && (copyEnd - copyBegin >= m_minCopySize || isLastCopy);
        const auto add = [&](std::uint64_t from, std::uint64_t to) {
            append(m_pending, {bytes.place, bytes.index, from, to - from});
        };
        if (!isCopied) // too few for a part of their own
        {
            add(bytes.offset, end);
            return;
        }
        add(bytes.offset, copyBegin);
        send();
        m_parts.push_back(
            {0, m_takes.how(), copyEnd - copyBegin, {{bytes.place, bytes.index, copyBegin, copyEnd - copyBegin}}});
        add(copyEnd, end);
    }

    void send()
    {
        if (!m_pending.empty())
        {
            const std::uint64_t size = sizeOf(m_pending);
            m_parts.push_back({0, How::Send, size, std::exchange(m_pending, {})});
        }
    }

    /// Enlarge a remainder that is too small to be a part and precedes an uploaded part: move bytes to it from the part
    /// planned last, or all of that part.
    void fillFromPrevious()
    {
        if (m_parts.empty())
        {
            refuse(
                fmt::format("{} bytes before an uploaded part are too few for a part of their own", sizeOf(m_pending)));
        }
        PlannedPart& before = m_parts.back();
        const std::uint64_t missing = m_store.minPartSize - sizeOf(m_pending);
        std::uint64_t keptSize = 0;
        if (before.how != How::Send && before.size >= m_store.minPartSize + missing)
        {
            const std::uint64_t begin = before.bytes.front().offset;
            keptSize = std::max(m_takes.endUpTo(begin + before.size - missing), begin) - begin;
        }
        const bool givesSome = keptSize >= m_store.minPartSize;
        Segments kept = takeFront(before.bytes, givesSome ? keptSize : 0);
        Segments filled = std::move(before.bytes);
        for (const PlannedBytes& bytes : m_pending)
        {
            append(filled, bytes);
        }
        m_pending = std::move(filled);
        if (givesSome)
        {
            before.bytes = std::move(kept);
            before.size = keptSize;
        }
        else
        {
            m_parts.pop_back();
        }
    }

    /// Split each planned part into as few parts of about equal size as the limits allow.
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

    /// Copies are as large as possible; parts that are sent are small, since they are kept in memory.
    std::uint64_t piecesOf(const PlannedPart& part, std::uint64_t sendSize) const
    {
        const auto pieces = [&](std::uint64_t maxSize) { return (part.size + maxSize - 1) / maxSize; };
        return part.how != How::Send ? pieces(m_takes.maxSize())
                                     : std::max({part.size / sendSize, pieces(m_store.maxPartSize), std::uint64_t{1}});
    }

    /// @return minimum bytes of a part that results from splitting, so that the number of parts stays within m_maxParts
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
        std::uint64_t size = m_store.minPartSize;
        while (size < largest && count(size) > m_maxParts)
        {
            size += size / 8 + 1;
        }
        return size;
    }

    const StoreAbilities& m_store;
    const TakeRules& m_takes;
    const bool m_isLast;
    const std::size_t m_maxParts;
    std::uint64_t m_minCopySize = m_store.minPartSize; // doubled while there are too many parts
    Segments m_bytes;
    std::uint64_t m_size = 0;         // of m_bytes
    Segments m_pending;               // to be sent together with the bytes that follow
    std::vector<PlannedPart> m_parts; // not split yet
};

/// Plan parts of one size; only the last one may be smaller.
std::vector<PlannedPart> planEqual(
    const std::vector<FilePart>& file, std::uint64_t fileSize, const StoreAbilities& store)
{
    const auto isUploaded = [](const FilePart& part) { return part.place == PartPlace::Uploaded; };
    const auto setting = std::find_if(file.begin(), file.end(), isUploaded);
    const bool isSet = setting != file.end() && setting + 1 != file.end();
    const std::uint64_t size = isSet ? setting->size
                                     : std::max({store.minPartSize, file.empty() ? 0 : file.front().size,
                                           (fileSize + store.maxParts - 1) / store.maxParts});
    std::vector<PlannedPart> parts;
    Segments pending;
    std::uint64_t pendingSize = 0;
    const auto add = [&](std::uint64_t partSize)
    {
        Segments bytes = takeFront(pending, partSize);
        pendingSize -= partSize;
        const bool isCopied = bytes.size() == 1 && bytes[0].place == PartPlace::Object && partSize <= store.maxTakeSize;
        parts.push_back({parts.size() + 1, isCopied ? How::Copy : How::Send, partSize, std::move(bytes)});
    };
    for (const FilePart& part : file)
    {
        if (isUploaded(part))
        {
            const bool fits = part.size == size || (&part == &file.back() && part.size <= size);
            if (!fits || pendingSize > 0 || part.number != parts.size() + 1)
            {
                refuse(fmt::format("part {} was sent with {} bytes; every part but the last must have {} bytes",
                    part.number, part.size, size));
            }
            parts.push_back({part.number, How::Keep, part.size, {}});
            continue;
        }
        append(pending, bytesOf(part));
        pendingSize += part.size;
        while (pendingSize >= size)
        {
            add(size);
        }
    }
    if (pendingSize > 0 || parts.empty())
    {
        add(pendingSize);
    }
    return parts;
}

std::vector<PlannedPart> planJoined(
    const std::vector<FilePart>& file, const StoreAbilities& store, const TakeRules& takes)
{
    std::vector<PlannedPart> parts;
    for (auto next = file.begin(); next != file.end();)
    {
        const auto sent =
            std::find_if(next, file.end(), [](const FilePart& part) { return part.place == PartPlace::Uploaded; });
        const std::size_t used = parts.empty() ? 0 : parts.back().number;
        const std::size_t end = sent == file.end() ? store.maxParts : sent->number - 1;
        PartRun run(store, takes, sent == file.end(), std::max(end, used) - used);
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
            if (!parts.empty() && parts.back().number >= sent->number)
            {
                refuse(fmt::format("too many parts precede part {}", sent->number));
            }
            parts.push_back({sent->number, How::Keep, sent->size, {}});
            ++next;
        }
    }
    if (parts.empty())
    {
        parts.push_back({1, How::Send, 0, {}}); // an empty object
    }
    return parts;
}

} // namespace

UploadPlan planUpload(
    const std::vector<FilePart>& file, const StoreAbilities& store, const std::vector<std::uint64_t>& ends)
{
    UploadPlan plan;
    for (const FilePart& part : file)
    {
        plan.size += part.size;
    }
    if (plan.size > store.maxObjectSize)
    {
        refuse(fmt::format("the object would have {} bytes; the maximum is {}", plan.size, store.maxObjectSize));
    }
    const TakeRules takes(store, ends);
    // Bytes that have no parts of their own become equal ones in any case: not every store tells that it wants that.
    const bool isWhole = !file.empty() && file.front().place == PartPlace::Source;
    plan.parts = store.equalParts || isWhole ? planEqual(file, plan.size, store) : planJoined(file, store, takes);
    std::size_t count = plan.parts.size(); // of parts that the object will have
    for (const PlannedPart& part : plan.parts)
    {
        count += part.how == How::Take ? takes.countIn(part.bytes.front()) - 1 : 0;
        if (part.size < store.minPartSize && &part != &plan.parts.back())
        {
            refuse(fmt::format("part {} has {} bytes; every part but the last needs at least {}", part.number,
                part.size, store.minPartSize));
        }
        if (part.how == How::Send && part.size > store.maxPartSize)
        {
            refuse(fmt::format("part {} has {} bytes; the maximum is {}", part.number, part.size, store.maxPartSize));
        }
    }
    count = std::max(count, plan.parts.back().number);
    if (count > store.maxParts)
    {
        if (!ends.empty())
        {
            return planUpload(file, store); // small parts are copied together
        }
        refuse(fmt::format("the object would have {} parts; the maximum is {}", count, store.maxParts));
    }
    plan.hasCopies = std::any_of(plan.parts.begin(), plan.parts.end(),
        [](const PlannedPart& part) { return part.how == How::Copy || part.how == How::Take; });
    return plan;
}

} // namespace storage::clients
