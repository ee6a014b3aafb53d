#include "CommandContext.hpp"

#include "CommandError.hpp"
#include "Diagnostics.hpp"
#include "Interrupt.hpp"
#include "StandardOutput.hpp"

#include <storage/clients/common/StoreCounters.hpp>
#include <storage/clients/decorators/FindInterface.hpp>
#include <storage/clients/stores/OpenStore.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>
#include <storage/cloudprovider/TemporaryFiles.hpp>
#include <storage/cloudprovider/utils.hpp>

#include <fl/i18n.hpp>

#include <foundation/storage/provider/ByteStreamFailure.hpp>
#include <foundation/storage/provider/Exception.hpp>

#include <exception>
#include <new>
#include <sstream>

namespace cloudfs
{

using storage::cloudprovider::CloudException;

void CommandContext::open(bool createMissing)
{
    diagnostics::install(verbose);
    storage::cloudprovider::removeTemporaryFilesOfDeadProcesses();
    try
    {
        m_store = storage::clients::openStore(
            storeUrl, {.interrupted = &interrupt::isPending, .createMissing = createMissing});
    }
    catch (const CloudException& exception)
    {
        throw CommandError::fromStore(storeForMessages(), exception);
    }
    // The recorder is inside, because a cancelled call is not a failure of the store.
    m_recorder = std::make_shared<storage::clients::FailureRecordingClient>(m_store);
    m_client = std::make_shared<storage::clients::CancellableClient>(m_recorder, &interrupt::isPending);
    m_provider = storage::cloudprovider::buildCloudProvider(m_client, folderPolicy, true);
}

std::string CommandContext::storeForMessages() const
{
    const bool mayHavePassword = storeUrl.find('@') != std::string::npos; // the line may end up in a log
    return mayHavePassword || storeUrl.empty() ? "--store" : '"' + storeUrl + '"';
}

void CommandContext::rethrowAsCommandError(const StorePath& path) const
{
    try
    {
        throw;
    }
    catch (const fsp::Exception& exception)
    {
        // Use the exception's own path: for a copy it may be the source or the destination.
        throwFailure(fl::i18n::ustring_to_utf8(exception.iri().getPath()), exception.errorCode());
    }
    catch (const fsp::ByteStreamFailure& exception)
    {
        throwFailure(path.text(), exception.reason());
    }
    catch (const CloudException& exception)
    {
        throw CommandError::fromStore(path.text(), exception);
    }
    catch (const std::bad_alloc&)
    {
        throw CommandError(path.text(), "not enough memory", fsp::ErrorCode::Unknown);
    }
    // All other exceptions describe themselves.
}

void CommandContext::throwFailure(const std::string& path, const fsp::ErrorCode& code) const
{
    std::string reason = code.detail().value_or(defaultReason(code));
    if (code == fsp::ErrorCode::AlreadyExists)
    {
        reason = defaultReason(code); // the store's words would tell of requests
    }
    else if (code == fsp::ErrorCode::Unknown && !code.detail())
    {
        const std::string key = path.substr(1);
        throwRecordedFailure(path, key);
        throwRecordedFailure(path, storage::cloudprovider::utils::ensureTrailingSlash(key));
        reason += "; -v logs the cause";
    }
    throw CommandError(path, reason, code);
}

void CommandContext::throwRecordedFailure(const std::string& path, const std::string& key) const
{
    try
    {
        if (const auto failure = m_recorder->takeFailure(key))
        {
            std::rethrow_exception(failure);
        }
    }
    catch (const CloudException& exception)
    {
        throw CommandError::fromStore(path, exception);
    }
    catch (const std::exception& exception)
    {
        throw CommandError(path, exception.what(), fsp::ErrorCode::Unknown);
    }
}

bool CommandContext::fileExists(const StorePath& path) const
{
    return translateErrors(path, [&] { return provider().fileExists(path.iri()); });
}

bool CommandContext::folderExists(const StorePath& path) const
{
    return translateErrors(path, [&] { return provider().folderExists(path.iri()); });
}

fsp::FileAttributes CommandContext::fileAttributes(const StorePath& path) const
{
    return translateErrors(path, [&] { return provider().getFileAttributes(path.iri()); });
}

void CommandContext::requireCommitted(const StorePath& path) const
{
    throwRecordedFailure(path.text(), path.key());
}

void CommandContext::requireFile(const StorePath& path) const
{
    const bool isFile = !path.namesFolder() && fileExists(path);
    if (isFile)
    {
        return;
    }
    if (folderExists(path))
    {
        throw CommandError(path.text(), "is a folder", fsp::ErrorCode::InvalidLocation);
    }
    throw CommandError(path.text(), path.namesFolder() ? "no such folder" : "no such file", fsp::ErrorCode::NotFound);
}

CommandContext::Condition CommandContext::requireCanStore(const StorePath& path, bool replace) const
{
    if (folderExists(path))
    {
        throw CommandError(path.text(), "is a folder", fsp::ErrorCode::AlreadyExists);
    }
    if (replace)
    {
        return nullptr;
    }
    requireNoFile(path);
    return requireVersion(path, "");
}

CommandContext::Condition CommandContext::requireVersion(const StorePath& path, const std::string& tag) const
{
    auto* const conditions = storage::clients::findInterface<storage::clients::WriteConditions>(*m_store);
    return conditions != nullptr ? conditions->requireVersion(path.key(), tag) : nullptr;
}

void CommandContext::requireNoFile(const StorePath& path) const
{
    if (fileExists(path))
    {
        throw CommandError(path.text(), "already exists; use -f to replace it", fsp::ErrorCode::AlreadyExists);
    }
}

void CommandContext::requireNoParentIsFile(const StorePath& path) const
{
    for (StorePath parent = path; !parent.isRoot();)
    {
        parent = parent.parent();
        if (!parent.isRoot() && fileExists(parent))
        {
            throw CommandError(parent.text(), "is a file, not a folder", fsp::ErrorCode::AlreadyExists);
        }
    }
}

storage::clients::RemoteClient::Waiting CommandContext::waiting() const
{
    const auto* remote = storage::clients::findInterface<const storage::clients::RemoteClient>(*m_store);
    return remote != nullptr ? remote->waiting() : storage::clients::RemoteClient::Waiting();
}

void CommandContext::printCounters() const
{
    const auto* counters =
        m_store ? storage::clients::findInterface<const storage::clients::StoreCounters>(*m_store) : nullptr;
    if (verbose && counters != nullptr)
    {
        std::ostringstream text;
        text << "store calls: " << counters->callSnapshot();
        diagnostics::printLine(text.view());
    }
}

} // namespace cloudfs
