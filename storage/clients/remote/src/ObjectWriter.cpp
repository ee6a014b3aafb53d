#include "ObjectWriter.hpp"

#include <storage/clients/common/KeyRules.hpp>
#include <storage/clients/common/TransientException.hpp>
#include <storage/clients/remote/RemoteFailures.hpp>

namespace storage::clients
{

void ObjectWriter::put(const std::string& key, std::istream& content, std::uint64_t size)
{
    checkKey(key);
    VersionPins::Write write(m_pins, key);
    StreamBody body(key, content, size);
    const auto required = m_required.find(key);
    const auto metadata = m_metadata.after(m_pins.pinned(key), required, key);
    std::string tag;
    const auto send = [&](const WriteCondition& condition)
    { tag = m_store.putObject(key, body, condition, *metadata); };
    const auto isStored = [&](const std::optional<StoredObject>& stored)
    {
        tag = m_store.tagOf(body);
        return stored && stored->version.tag == tag;
    };
    m_retry.run({Operation::PutObject, key, nullptr, size},
        [&] { attempt(key, required, !m_store.abilities(key).conditionalWrites, send, isStored); });
    write.succeeded({tag, size, metadata});
}

void ObjectWriter::remove(const std::string& key)
{
    if (key.empty() || key.size() > maxKeyBytes) // no store has such an object; an empty key would be the root
    {
        return;
    }
    const auto send = [&](const WriteCondition& condition) { m_store.deleteObject(key, condition); };
    const auto isGone = [](const std::optional<StoredObject>& stored) { return !stored; };
    const auto required = m_required.find(key);
    const bool requiresNone = required && required->empty();
    m_retry.run({Operation::DeleteObject, key},
        [&] { attempt(key, required, requiresNone || !m_store.abilities(key).conditionalWrites, send, isGone); });
    m_pins.deleted(key);
}

void ObjectWriter::attempt(
    const std::string& key, const WriteCondition& required, bool needsLookup, const Send& send, const Effect& hasEffect)
{
    if (!required)
    {
        send(required);
        return;
    }
    const auto isDone = [&](const std::optional<StoredObject>& stored)
    { return m_required.isOutcomeUnknown(key) && hasEffect(stored); };
    if (needsLookup || m_required.isOutcomeUnknown(key))
    {
        const auto stored = m_store.findObject(key);
        if (isDone(stored))
        {
            return;
        }
        checkRequiredVersion(key, *required, stored ? stored->version.tag : "");
    }
    try
    {
        send(required);
    }
    catch (const TransientException&)
    {
        m_required.setOutcomeUnknown(key);
        throw;
    }
    catch (const PreconditionFailed& failure)
    {
        failure.wasSentTwice() ? m_required.setOutcomeUnknown(key) : void(); // the first one may have taken effect
        if (!isDone(m_store.findObject(key)))
        {
            throwOtherVersion(key, *required);
        }
    }
}

} // namespace storage::clients
