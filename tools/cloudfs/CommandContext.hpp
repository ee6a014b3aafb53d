#pragma once

#include "StorePath.hpp"

#include <storage/clients/common/WriteConditions.hpp>
#include <storage/clients/decorators/CancellableClient.hpp>
#include <storage/clients/decorators/FailureRecordingClient.hpp>
#include <storage/clients/remote/RemoteClient.hpp>
#include <storage/cloudprovider/CloudProvider.hpp>

#include <foundation/storage/provider/IProvider.hpp>
#include <foundation/usm/Context.hpp>

#include <memory>
#include <optional>
#include <string>

namespace cloudfs
{

/// What every command needs: the global options, the store, the provider over it, and whether anything failed.
///
/// Set the options, then call open(). From then on any thread may call any operation but markFailed().
class CommandContext
{
public:
    std::string storeUrl = "local:";
    storage::cloudprovider::FolderPolicy folderPolicy = storage::cloudprovider::FolderPolicy::MarkerObjects;
    bool verbose = false;

    /// Open the store. Call once, before every other operation.
    ///
    /// @param createMissing  whether a missing local store is created, or an error
    /// @throws CommandError that begins with storeForMessages()
    void open(bool createMissing);

    /// Return the store's URL in quotes, or "--store" if the URL is empty or may contain a password.
    std::string storeForMessages() const;

    const fsp::IProvider& provider() const noexcept { return *m_provider; }
    storage::clients::CancellableClient& client() const noexcept { return *m_client; }

    /// The store as openStore() returned it, for findInterface().
    storage::cloudprovider::CloudClient& store() const noexcept { return *m_store; }

    /// Call a function of the provider or of client() and translate what it throws.
    ///
    /// @return what the function returns
    /// @throws CommandError for an exception of the provider or of a client: with the path that the exception names, or
    ///         else `path`, and the most specific reason known. Other exceptions pass unchanged.
    template <typename Call>
    auto translateErrors(const StorePath& path, Call call) const
    {
        try
        {
            return call();
        }
        catch (...)
        {
            rethrowAsCommandError(path);
        }
    }

    /// Return whether the store has a file under this path. A final "/" of the argument is ignored.
    bool fileExists(const StorePath& path) const;

    bool folderExists(const StorePath& path) const;

    fsp::FileAttributes fileAttributes(const StorePath& path) const;

    /// Check a file after its last change.
    ///
    /// The provider reports no error for a file whose multipart upload could not be opened: it keeps the old object.
    /// @throws CommandError if a request of the store for this file failed and the failure was not reported yet
    void requireCommitted(const StorePath& path) const;

    /// @throws CommandError if the path is a folder or does not exist
    void requireFile(const StorePath& path) const;

    using Condition = std::unique_ptr<storage::clients::WriteConditions::Condition>;

    /// Check that a file may be stored under this path.
    ///
    /// @param replace  whether an existing file may be replaced
    /// @return keep it until the file is stored: if `replace` is false, a file that another program has stored
    ///         meanwhile makes the commit fail, as WriteConditions says
    /// @throws CommandError if the path is a folder, or if it is a file and `replace` is false
    [[nodiscard]] Condition requireCanStore(const StorePath& path, bool replace) const;

    /// Let the store reject every change of a file that has another version by then. Null if the store cannot.
    ///
    /// @param tag  ObjectInfo::tag; empty: there must be no file
    [[nodiscard]] Condition requireVersion(const StorePath& path, const std::string& tag) const;

    /// @throws CommandError if the path is a file
    void requireNoFile(const StorePath& path) const;

    /// @throws CommandError if a parent of this path is a file; the store itself would accept that
    void requireNoParentIsFile(const StorePath& path) const;

    /// What the store's requests in progress wait for; all zero if the store does not retry.
    storage::clients::RemoteClient::Waiting waiting() const;

    /// Print the store's call counters on standard error, if verbose and open.
    void printCounters() const;

    /// Record that a failure was reported although the command continued. Main thread only.
    void markFailed() noexcept { m_failed = true; }
    bool hasFailed() const noexcept { return m_failed; }

private:
    [[noreturn]] void rethrowAsCommandError(const StorePath& path) const;
    [[noreturn]] void throwFailure(const std::string& path, const fsp::ErrorCode& code) const;
    void throwRecordedFailure(const std::string& path, const std::string& key) const;

    std::shared_ptr<storage::cloudprovider::CloudClient> m_store;
    std::shared_ptr<storage::clients::FailureRecordingClient> m_recorder;
    std::shared_ptr<storage::clients::CancellableClient> m_client;
    std::shared_ptr<const fsp::IProvider> m_provider;
    bool m_failed = false; // main thread only

    const foundation::usm::ContextScope m_context; // lets an interrupt end long listings inside the provider
};

} // namespace cloudfs
