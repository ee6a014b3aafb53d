#include "Upload.hpp"

#include <storage/cloudprovider/CloudExceptions.hpp>

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <utility>

namespace storage::clients
{

namespace
{

std::exception_ptr dropped()
{
    return std::make_exception_ptr(cloudprovider::UnknownErrorException(
        "Dropped", "the part was dropped because it was to be replaced, or the upload to be aborted"));
}

} // namespace

std::string Upload::ensureStoreId(const std::function<std::string()>& open)
{
    const std::lock_guard lock(m_openingMutex);
    return m_storeId.empty() ? m_storeId = open() : m_storeId;
}

std::string Upload::storeId() const
{
    const std::lock_guard lock(m_openingMutex);
    return m_storeId;
}

const ObjectUploader::Source* Upload::source() const
{
    const std::lock_guard lock(m_mutex);
    return m_source;
}

void Upload::setSource(const ObjectUploader::Source* source)
{
    const std::lock_guard lock(m_mutex);
    m_source = source;
}

std::shared_ptr<const WrittenMetadata> Upload::metadata() const
{
    const std::lock_guard lock(m_mutex);
    return m_metadata;
}

void Upload::setMetadata(std::shared_ptr<const WrittenMetadata> metadata)
{
    const std::lock_guard lock(m_mutex);
    m_metadata = std::move(metadata);
}

std::vector<std::uint64_t> Upload::sourceEnds(
    const Version& source, const std::function<std::vector<std::uint64_t>()>& lookUp)
{
    {
        const std::lock_guard lock(m_mutex);
        if (m_sourceEnds.first == source.tag)
        {
            return m_sourceEnds.second;
        }
    }
    auto ends = lookUp();
    const std::lock_guard lock(m_mutex);
    m_sourceEnds = {source.tag, ends};
    return ends;
}

void Upload::forgetSourceEnds()
{
    const std::lock_guard lock(m_mutex);
    m_sourceEnds = {};
}

std::string Upload::tagOf(std::size_t index, const Part& part) const
{
    return fmt::format("{}.{}.{}", m_id, index, part.generation);
}

std::optional<Upload::Part> Upload::part(std::size_t index) const
{
    const std::lock_guard lock(m_mutex);
    const auto found = m_parts.find(index);
    return found == m_parts.end() ? std::nullopt : std::optional(found->second);
}

std::string Upload::setPart(std::size_t index, Part part)
{
    std::unique_lock lock(m_mutex);
    cancel(index);
    m_changed.wait(lock, [&] { return !isOnTheWay(index); });
    if (part.place == PartPlace::Spooled && !m_spool.has(part.spooled))
    {
        std::rethrow_exception(dropped());
    }
    part.generation = ++m_generation;
    std::string tag = tagOf(index, part);
    replacePart(index, std::move(part));
    return tag;
}

PartGroup Upload::groupOf(const cloudprovider::PartInfo& part, const StoreAbilities& store) const
{
    const bool isNumberedByIndex = m_isNew || store.equalParts;
    // The first parts of an object, of most objects all, have numbers of their own, in case every second one changes.
    const std::size_t ungrouped = m_isNew ? 0 : store.maxParts / 2 + 1;
    PartGroup group = clients::groupOf(part.Index, ungrouped, store);
    if (!isNumberedByIndex && part.Index < ungrouped)
    {
        // The plan never needs more parts for the bytes before this one than have the minimum size.
        group.number = std::min<std::size_t>(part.Index, part.Offset / store.minPartSize) + 1;
    }
    const bool isUnknown = !isNumberedByIndex && part.Offset == 0 && part.Index > 0; // to the caller
    return isUnknown || group.number > store.maxParts ? PartGroup() : group;
}

std::optional<Upload::Begun> Upload::beginSending(const cloudprovider::PartInfo& part, const PartGroup& group,
    const std::shared_ptr<PartBytes>& bytes, const StoreAbilities& store, std::size_t maxSending)
{
    std::unique_lock lock(m_mutex);
    cancel(part.Index);
    m_changed.wait(lock, [&] { return m_sending < maxSending && !isOnTheWay(part.Index); });
    if (!hasRoom(group, part.Offset, part.Offset + part.Size, store))
    {
        return std::nullopt;
    }
    const Part sending{
        .size = part.Size, .offset = part.Offset, .group = group, .generation = ++m_generation, .bytes = bytes};
    Begun begun{tagOf(part.Index, sending), sending.generation};
    replacePart(part.Index, sending);
    ++m_sending;
    return begun;
}

std::optional<std::uint64_t> Upload::beginSendingSpooled(
    const PartGroup& group, const StoreAbilities& store, std::size_t maxSending)
{
    std::unique_lock lock(m_mutex);
    if (!canSendSpooled(group, store))
    {
        return std::nullopt;
    }
    m_changed.wait(lock, [&] { return m_sending < maxSending; });
    if (!canSendSpooled(group, store)) // any more
    {
        return std::nullopt;
    }
    for (std::size_t index = group.first; index < group.end(); ++index)
    {
        m_parts.find(index)->second.group = group;
    }
    Part& first = m_parts.find(group.first)->second;
    first.sending = Sending::Queued;
    ++m_sending;
    return first.generation;
}

bool Upload::canSendSpooled(const PartGroup& group, const StoreAbilities& store) const
{
    std::uint64_t size = 0;
    for (std::size_t index = group.first; index < group.end(); ++index)
    {
        const auto part = m_parts.find(index);
        if (part == m_parts.end() || part->second.place != PartPlace::Spooled || part->second.group.number != 0 ||
            part->second.size < store.minPartSize)
        {
            return false;
        }
        size += part->second.size;
    }
    const std::uint64_t begin = m_parts.at(group.first).offset;
    return size <= store.maxPartSize && hasRoom(group, begin, begin + size, store);
}

std::optional<std::shared_ptr<PartBytes>> Upload::startSending(std::size_t first, std::uint64_t generation)
{
    const std::lock_guard lock(m_mutex);
    Part& part = m_parts.find(first)->second;
    if (!isOnTheWay(first) || part.generation != generation || part.sending != Sending::Queued)
    {
        return std::nullopt;
    }
    part.sending = Sending::Running;
    return std::exchange(part.bytes, nullptr);
}

PlannedPart Upload::spooledPart(const PartGroup& group) const
{
    const std::lock_guard lock(m_mutex);
    PlannedPart planned{group.number, PlannedPart::How::Send, 0, {}};
    for (std::size_t index = group.first; index < group.end(); ++index)
    {
        planned.bytes.push_back({PartPlace::Spooled, index, 0, m_parts.at(index).size});
        planned.size += planned.bytes.back().size;
    }
    return planned;
}

bool Upload::isCancelled(std::size_t first) const
{
    const std::lock_guard lock(m_mutex);
    return m_parts.at(first).sending == Sending::Cancelled;
}

void Upload::setSent(std::size_t first, std::string storeTag) noexcept
{
    const std::lock_guard lock(m_mutex);
    m_parts.find(first)->second.storeTag = std::move(storeTag);
    --m_sending;
    m_changed.notify_all();
}

void Upload::setFailed(
    std::size_t first, const std::exception_ptr& failure, const std::optional<std::uint64_t>& spooled) noexcept
{
    const std::lock_guard lock(m_mutex);
    Part& part = m_parts.find(first)->second;
    if (spooled)
    {
        part.place = PartPlace::Spooled;
        part.spooled = *spooled;
    }
    if (part.place == PartPlace::Spooled)
    {
        ungroup(part);
    }
    else
    {
        part.failure = failure;
    }
    if (part.sending != Sending::Cancelled && !m_unreported)
    {
        m_unreported = failure;
    }
    --m_sending;
    m_changed.notify_all();
}

std::string Upload::storeTag(std::size_t index) const
{
    const std::lock_guard lock(m_mutex);
    const PartGroup& group = m_parts.at(index).group;
    return group.number == 0 ? "" : m_parts.at(group.first).storeTag;
}

void Upload::reportFailure()
{
    std::exception_ptr failure;
    {
        const std::lock_guard lock(m_mutex);
        failure.swap(m_unreported);
    }
    if (failure)
    {
        std::rethrow_exception(failure);
    }
}

void Upload::forgetUnreported()
{
    const std::lock_guard lock(m_mutex);
    m_unreported = nullptr;
}

void Upload::waitUntilIdle()
{
    std::unique_lock lock(m_mutex);
    m_changed.wait(lock, [&] { return m_sending == 0; });
}

bool Upload::isSendingOthers(const std::map<std::size_t, std::size_t>& kept) const
{
    const std::lock_guard lock(m_mutex);
    const auto isSending = [&](const auto& entry) { return isOnTheWay(entry.second); };
    return static_cast<std::size_t>(std::ranges::count_if(kept, isSending)) < m_sending;
}

/// Do not send the group of a part, or send no more of it. A transfer that runs is on the way until it ends.
void Upload::cancel(std::size_t index)
{
    if (!isOnTheWay(index))
    {
        return;
    }
    Part& first = m_parts.at(m_parts.at(index).group.first);
    if (first.sending != Sending::Queued)
    {
        first.sending = Sending::Cancelled;
        return;
    }
    if (first.place != PartPlace::Spooled)
    {
        first.failure = dropped();
        first.bytes.reset();
    }
    ungroup(first);
    --m_sending;
    m_changed.notify_all();
}

void Upload::replacePart(std::size_t index, Part part)
{
    Part& replaced = m_parts[index];
    ungroup(replaced);
    if (replaced.place == PartPlace::Spooled)
    {
        m_spool.free(replaced.spooled, replaced.size);
    }
    replaced = std::move(part);
    m_done.clear();
}

/// Forget that a group was sent.
void Upload::ungroup(const Part& member) noexcept
{
    const PartGroup group = member.group;
    for (std::size_t index = group.first; group.number != 0 && index < group.end(); ++index)
    {
        Part& part = m_parts.find(index)->second;
        part.group = {};
        part.storeTag.clear();
    }
}

bool Upload::isOnTheWay(std::size_t index) const
{
    const auto found = m_parts.find(index);
    return found != m_parts.end() && found->second.group.number != 0 && !found->second.failure &&
           m_parts.at(found->second.group.first).storeTag.empty();
}

/// Whether a group can have its number.
bool Upload::hasRoom(const PartGroup& group, std::uint64_t begin, std::uint64_t end, const StoreAbilities& store) const
{
    const auto isSent = [](const auto& entry) { return entry.second.group.number != 0; };
    if (store.equalParts && group.number != 0) // the plan keeps parts of one size, which begin at multiples of it
    {
        const std::uint64_t size = end - begin;
        return begin == group.first * size &&
               std::ranges::all_of(m_parts, [&](const auto& entry)
                   { return entry.first == group.first || !isSent(entry) || entry.second.size == size; });
    }
    if (m_isNew || group.number == 0)
    {
        return group.number != 0;
    }
    // The bytes between two sent parts, which are sent or copied later, must be none or enough for a part. And there
    // must be numbers for their copies, and for a change between these.
    const std::uint64_t maxSize = store.maxTakeSize > 0 ? store.maxTakeSize : store.maxPartSize;
    const auto leavesRoom = [&](std::uint64_t from, std::uint64_t to, std::size_t parts, std::size_t numbers)
    {
        const std::uint64_t bytes = to - std::min(from, to);
        const std::uint64_t needed = (bytes + maxSize - 1) / maxSize + 2;
        return from == to || (bytes >= store.minPartSize &&
                                 numbers >= std::min<std::uint64_t>({needed, parts, bytes / store.minPartSize}));
    };
    const auto following = std::find_if(m_parts.lower_bound(group.end()), m_parts.end(), isSent);
    const auto preceding =
        std::find_if(std::make_reverse_iterator(m_parts.lower_bound(group.first)), m_parts.rend(), isSent);
    const bool isFirst = preceding == m_parts.rend();
    const std::uint64_t sent = isFirst ? 0 : preceding->second.offset + preceding->second.size;
    const std::size_t sentParts = isFirst ? 0 : preceding->first + 1;
    const std::size_t used = isFirst ? 0 : preceding->second.group.number;
    return used < group.number && leavesRoom(sent, begin, group.first - sentParts, group.number - used - 1) &&
           (following == m_parts.end() || (group.number < following->second.group.number &&
                                              leavesRoom(end, following->second.offset, following->first - group.end(),
                                                  following->second.group.number - group.number - 1)));
}

void Upload::recordDone(const PlannedPart& part, const std::string& tag)
{
    const std::lock_guard lock(m_mutex);
    m_done.insert_or_assign(part.number, std::pair(part, tag));
}

std::optional<std::string> Upload::doneTag(const PlannedPart& part) const
{
    const std::lock_guard lock(m_mutex);
    const auto found = m_done.find(part.number);
    return found == m_done.end() || found->second.first != part ? std::nullopt : std::optional(found->second.second);
}

void Upload::forgetDone()
{
    const std::lock_guard lock(m_mutex);
    m_done.clear();
}

void Upload::dropUnsent()
{
    std::unique_lock lock(m_mutex);
    const auto cancelAll = [&]
    {
        for (const auto& [index, part] : m_parts)
        {
            cancel(index);
        }
        return m_sending == 0;
    };
    m_changed.wait(lock, cancelAll); // also what takes its turn meanwhile
    const std::exception_ptr lost = dropped();
    for (auto& [index, part] : m_parts)
    {
        if (part.place == PartPlace::Spooled)
        {
            part.place = PartPlace::Uploaded;
            part.failure = lost;
        }
    }
    m_spool.clear();
}

bool Upload::isOutcomeUnknown() const
{
    const std::lock_guard lock(m_mutex);
    return m_isOutcomeUnknown;
}

void Upload::setOutcomeUnknown()
{
    const std::lock_guard lock(m_mutex);
    m_isOutcomeUnknown = true;
}

} // namespace storage::clients
