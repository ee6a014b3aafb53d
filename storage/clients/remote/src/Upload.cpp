#include "Upload.hpp"

#include <storage/cloudprovider/CloudExceptions.hpp>

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <utility>

namespace storage::clients
{

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

std::shared_ptr<const ObjectMetadata> Upload::metadata() const
{
    const std::lock_guard lock(m_mutex);
    return m_metadata;
}

void Upload::setMetadata(std::shared_ptr<const ObjectMetadata> metadata)
{
    const std::lock_guard lock(m_mutex);
    m_metadata = std::move(metadata);
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
    m_changed.wait(lock, [&] { return !isOnTheWay(index); });
    part.generation = ++m_generation;
    std::string tag = tagOf(index, part);
    replacePart(index, std::move(part));
    return tag;
}

std::optional<Upload::Part> Upload::beginSending(const cloudprovider::PartInfo& part, const StoreAbilities& store)
{
    std::unique_lock lock(m_mutex);
    m_changed.wait(lock, [&] { return !isOnTheWay(part.Index); });
    Part sending{.size = part.Size, .offset = part.Offset, .number = numberFor(part, store)};
    if (sending.number == 0)
    {
        return std::nullopt;
    }
    sending.generation = ++m_generation;
    replacePart(part.Index, sending);
    ++m_sending;
    return sending;
}

bool Upload::startSending(std::size_t index, std::uint64_t generation)
{
    const std::lock_guard lock(m_mutex);
    Part& part = m_parts.find(index)->second;
    part.isStarted = isOnTheWay(index) && part.generation == generation;
    return part.isStarted;
}

void Upload::setSent(std::size_t index, std::string storeTag) noexcept
{
    const std::lock_guard lock(m_mutex);
    m_parts.find(index)->second.storeTag = std::move(storeTag);
    --m_sending;
    m_changed.notify_all();
}

void Upload::setFailed(
    std::size_t index, const std::exception_ptr& failure, const std::optional<std::uint64_t>& spooled) noexcept
{
    const std::lock_guard lock(m_mutex);
    Part& part = m_parts.find(index)->second;
    if (spooled && !m_outage.isAborting()) // an abort has cleared the spool
    {
        part.place = PartPlace::Spooled;
        part.spooled = *spooled;
    }
    else
    {
        part.failure = failure;
    }
    m_unreported = m_unreported ? m_unreported : failure;
    --m_sending;
    m_changed.notify_all();
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

void Upload::replacePart(std::size_t index, Part part)
{
    Part& replaced = m_parts[index];
    if (replaced.place == PartPlace::Spooled)
    {
        m_spool.free(replaced.spooled, replaced.size);
    }
    replaced = std::move(part);
    m_done.clear();
}

bool Upload::isOnTheWay(std::size_t index) const
{
    const auto found = m_parts.find(index);
    return found != m_parts.end() && found->second.place == PartPlace::Uploaded && found->second.storeTag.empty() &&
           !found->second.failure;
}

/// @return 0: there is no suitable number
std::size_t Upload::numberFor(const cloudprovider::PartInfo& part, const StoreAbilities& store) const
{
    const auto isSent = [](const auto& entry) { return entry.second.place == PartPlace::Uploaded; };
    if (store.equalParts) // the plan keeps parts of one size, which begin at multiples of it
    {
        const bool fits =
            part.Index < store.maxParts && part.Offset == part.Index * part.Size &&
            std::ranges::all_of(m_parts, [&](const auto& entry)
                { return entry.first == part.Index || !isSent(entry) || entry.second.size == part.Size; });
        return fits ? part.Index + 1 : 0;
    }
    // In a file that had content, there may be more parts than the store accepts. But the plan never needs more of them
    // for the bytes before this part than have the minimum size.
    const std::size_t number =
        m_isNew ? part.Index + 1 : std::min<std::size_t>(part.Index, part.Offset / store.minPartSize) + 1;
    if (number > store.maxParts || m_isNew)
    {
        return number > store.maxParts ? 0 : number;
    }
    if (part.Offset == 0 && part.Index > 0) // the caller does not know
    {
        return 0;
    }
    // The bytes between two sent parts, which are sent or copied later, must be none or enough for a part.
    const auto leavesRoom = [&](std::uint64_t end, std::uint64_t begin)
    { return end == begin || (end < begin && begin - end >= store.minPartSize); };
    const auto next = m_parts.upper_bound(part.Index);
    const auto following = std::find_if(next, m_parts.end(), isSent);
    const auto preceding =
        std::find_if(std::make_reverse_iterator(m_parts.lower_bound(part.Index)), m_parts.rend(), isSent);
    const std::uint64_t end = preceding == m_parts.rend() ? 0 : preceding->second.offset + preceding->second.size;
    const bool isSuitable =
        leavesRoom(end, part.Offset) && (preceding == m_parts.rend() || preceding->second.number < number) &&
        (following == m_parts.end() ||
            (leavesRoom(part.Offset + part.Size, following->second.offset) && number < following->second.number));
    return isSuitable ? number : 0;
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
    const std::lock_guard lock(m_mutex);
    for (auto& [index, part] : m_parts)
    {
        const bool isWaiting = isOnTheWay(index) && !part.isStarted;
        if (isWaiting || part.place == PartPlace::Spooled)
        {
            part.place = PartPlace::Uploaded;
            part.failure = std::make_exception_ptr(
                cloudprovider::UnknownErrorException("Aborted", "the part was dropped by an abort that failed"));
            m_sending -= isWaiting ? 1 : 0;
        }
    }
    m_spool.clear();
    m_changed.notify_all();
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
