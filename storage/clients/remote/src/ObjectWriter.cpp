#include "ObjectWriter.hpp"

#include <storage/clients/common/KeyRules.hpp>
#include <storage/clients/common/TransientException.hpp>
#include <storage/clients/remote/RemoteFailures.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>

#include <algorithm>
#include <utility>

namespace storage::clients
{

using namespace cloudprovider;

namespace
{

bool isTransient(const std::exception_ptr& failure)
try
{
    std::rethrow_exception(failure);
}
catch (const TransientException&)
{
    return true;
}
catch (const CloudException&)
{
    return false;
}

} // namespace

void ObjectWriter::put(const std::string& key, RequestBody& body)
{
    checkKey(key);
    VersionPins::Write write(m_pins, key);
    const auto required = m_required.find(key);
    const auto metadata = m_metadata.after(m_pins.pinned(key), required, key);
    std::string tag;
    const auto send = [&](const WriteCondition& condition)
    { tag = m_store.putObject(key, body, condition, *metadata); };
    const auto isStored = [&](const std::optional<StoredObject>& stored)
    {
        tag = stored ? stored->version.tag : "";
        return stored && m_store.isMadeOf(key, *stored, body);
    };
    m_retry.run({Operation::PutObject, key, nullptr, body.size()},
        [&] { attempt(key, required, !m_store.abilities(key).conditionalWrites, send, isStored); });
    write.succeeded({tag, body.size(), fieldsOf(metadata)});
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

std::map<std::string, std::exception_ptr> ObjectWriter::remove(const std::vector<std::string>& keys)
{
    std::map<std::string, std::exception_ptr> failures;
    std::vector<std::string> batch;
    const auto removeOne = [&](const std::string& key)
    {
        if (m_retry.isInterrupted()) // a store may send deletions nevertheless, because they clean up
        {
            throw TransientException("Interrupted", "deleting " + quoted(key) + " was not begun");
        }
        try
        {
            remove(key);
        }
        catch (const TransientException&) // the others would fail, too, and each would take as long
        {
            throw;
        }
        catch (const CloudException&)
        {
            failures.emplace(key, std::current_exception());
        }
    };
    const auto removeAll = [&]
    {
        try
        {
            removeBatch(batch, failures);
        }
        catch (const UnsupportedOperationException&)
        {
            std::ranges::for_each(batch, removeOne);
        }
        batch.clear();
    };
    for (const std::string& key : keys)
    {
        const bool isPlain = !key.empty() && key.size() <= maxKeyBytes && !m_required.find(key);
        const std::size_t maxDeletions = isPlain ? m_store.abilities(key).maxDeletions : 0;
        maxDeletions > 0 ? batch.push_back(key) : removeOne(key);
        batch.empty() || batch.size() < maxDeletions ? void() : removeAll();
    }
    batch.empty() ? void() : removeAll();
    return failures;
}

void ObjectWriter::removeBatch(std::vector<std::string> keys, std::map<std::string, std::exception_ptr>& failures)
{
    const std::string first = keys.front();
    m_retry.run({Operation::DeleteObject, first},
        [&]
        {
            const auto failed = m_store.deleteObjects(keys);
            std::exception_ptr temporary;
            std::vector<std::string> left;
            for (std::string& key : keys)
            {
                const auto failure = failed.find(key);
                if (failure == failed.end())
                {
                    m_pins.deleted(key);
                }
                else if (isTransient(failure->second))
                {
                    temporary = failure->second;
                    left.push_back(std::move(key));
                }
                else
                {
                    failures.insert(*failure);
                }
            }
            keys = std::move(left);
            temporary ? std::rethrow_exception(temporary) : void();
        });
}

void ObjectWriter::copy(const CopySource& source, const std::string& target)
{
    checkKey(target);
    VersionPins::Write write(m_pins, target);
    const auto required = m_required.find(target);
    std::string tag;
    const auto send = [&](const WriteCondition& condition)
    {
        try
        {
            tag = m_store.copyObject(source, target, condition);
        }
        catch (const PreconditionFailed&)
        {
            requireCurrent(source); // otherwise it is the target that is another one
            throw;
        }
    };
    // A store may give the copy another tag. Then an earlier attempt is not recognised.
    const auto isStored = [&](const std::optional<StoredObject>& stored)
    {
        tag = source.version.tag;
        return stored && stored->version.tag == tag;
    };
    m_retry.run({Operation::CopyPart, target, nullptr, source.version.size},
        [&] { attempt(target, required, true, send, isStored); });
    if (tag != source.version.tag && !m_store.abilities(source.key).conditionalTakes)
    {
        m_retry.run({Operation::GetObjectInfo, source.key}, [&] { requireCurrent(source); });
    }
    write.succeeded({tag, source.version.size, source.version.metadata});
}

void ObjectWriter::requireCurrent(const CopySource& source)
{
    const auto stored = m_store.findObject(source.key);
    if (!stored || stored->version.tag != source.version.tag)
    {
        throw UnknownErrorException("Object changed",
            "copying " + quoted(source.key) + " failed: somebody has changed or removed the object meanwhile");
    }
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
