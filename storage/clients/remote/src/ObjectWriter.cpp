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
    const std::string tag = m_retry.run({Operation::PutObject, key, nullptr, size},
        [&] { return required ? putAs(key, *required, body) : m_store.putObject(key, body, std::nullopt); });
    write.succeeded({tag, size});
}

/// Make one attempt to put the object if it has the required version. Its tag tells whether an earlier attempt, whose
/// response was lost, has stored it.
std::string ObjectWriter::putAs(const std::string& key, const std::string& required, RequestBody& body)
{
    const auto isDone = [&](const std::optional<StoredObject>& stored)
    { return stored && m_required.isOutcomeUnknown(key) && stored->version.tag == m_store.tagOf(body); };
    if (!m_store.abilities(key).conditionalWrites || m_required.isOutcomeUnknown(key))
    {
        const auto stored = m_store.findObject(key);
        if (isDone(stored))
        {
            return stored->version.tag;
        }
        checkRequiredVersion(key, required, stored ? stored->version.tag : "");
    }
    try
    {
        return m_store.putObject(key, body, required);
    }
    catch (const TransientException&)
    {
        m_required.setOutcomeUnknown(key);
        throw;
    }
    catch (const PreconditionFailed& failure)
    {
        failure.wasSentTwice() ? m_required.setOutcomeUnknown(key) : void();
        const auto stored = m_store.findObject(key);
        if (!isDone(stored))
        {
            throwOtherVersion(key, required);
        }
        return stored->version.tag;
    }
}

void ObjectWriter::remove(const std::string& key)
{
    if (key.empty() || key.size() > maxKeyBytes) // no store has such an object; an empty key would be the root
    {
        return;
    }
    const auto required = m_required.find(key);
    m_retry.run({Operation::DeleteObject, key},
        [&] { required ? removeAs(key, *required) : m_store.deleteObject(key, std::nullopt); });
}

/// Make one attempt to delete the object if it has the required version.
void ObjectWriter::removeAs(const std::string& key, const std::string& required)
{
    const bool mayBeDone = m_required.isOutcomeUnknown(key);
    if (!m_store.abilities(key).conditionalWrites || required.empty() || mayBeDone)
    {
        const auto stored = m_store.findObject(key);
        if (!stored && mayBeDone)
        {
            return;
        }
        checkRequiredVersion(key, required, stored ? stored->version.tag : "");
    }
    try
    {
        m_store.deleteObject(key, required);
    }
    catch (const TransientException&)
    {
        m_required.setOutcomeUnknown(key);
        throw;
    }
    catch (const PreconditionFailed& failure)
    {
        // If it was sent twice, the first one may have removed the object.
        if (!failure.wasSentTwice() || m_store.findObject(key))
        {
            throwOtherVersion(key, required);
        }
    }
}

} // namespace storage::clients
