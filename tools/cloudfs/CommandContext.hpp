#pragma once

#include "StorePath.hpp"

#include <storage/clients/decorators/CancellableClient.hpp>
#include <storage/clients/decorators/FailureRecordingClient.hpp>
#include <storage/cloudprovider/CloudProvider.hpp>

#include <foundation/storage/provider/IProvider.hpp>
#include <foundation/usm/Context.hpp>

#include <memory>
#include <string>

namespace cloudfs
{

/// One run of the program: the store that was named, the provider over it, and how the run ends.
///
/// Options are set before the first use; from then on every operation may be called from any thread.
class CommandContext
{
public:
    std::string storeUrl = "local:";
    storage::cloudprovider::FolderPolicy folderPolicy = storage::cloudprovider::FolderPolicy::MarkerObjects;
    bool verbose = false;

    /// Open the store. Call once, before anything below.
    ///
    /// @throws CommandError that names the store's URL
    void open();

    const fsp::IProvider& provider() const noexcept { return *m_provider; }
    storage::clients::CancellableClient& client() const noexcept { return *m_client; }

    /// The store itself, which may offer more than a CloudClient must.
    storage::cloudprovider::CloudClient& store() const noexcept { return *m_store; }

    /// Make a call, and turn whatever it throws into a CommandError about this path with the best reason there is.
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

    /// Whether there is such a file in the store. The path may not end in "/".
    bool fileExists(const StorePath& path) const;

    bool folderExists(const StorePath& path) const;

    fsp::FileAttributes fileAttributes(const StorePath& path) const;

    /// @throws CommandError if the store refused something of this file that nobody was told about: the close of a file
    ///         whose upload could not be opened is no error to the provider
    void requireCommitted(const StorePath& path) const;

    /// @throws CommandError if there is no such file, saying so if it is a folder
    void requireFile(const StorePath& path) const;

    /// Make sure that a file can be created here without harm to what stands there.
    ///
    /// @param replace  an existing file is no obstacle
    /// @throws CommandError if the path is a folder, or a file while `replace` is false
    void requireCanStore(const StorePath& path, bool replace) const;

    /// @throws CommandError if there is such a file
    void requireNoFile(const StorePath& path) const;

    /// @throws CommandError if one of the folders above this path is a file, which the store itself would not mind
    void requireNoParentIsFile(const StorePath& path) const;

    /// Print what the store counted, when asked to be verbose.
    void printCounters() const;

    /// Something failed and was reported, while other things went on.
    void markFailed() noexcept { m_failed = true; }
    bool hasFailed() const noexcept { return m_failed; }

private:
    [[noreturn]] void rethrowAsCommandError(const StorePath& path) const;
    std::string reasonFor(const std::string& path, const fsp::ErrorCode& code) const;

    std::shared_ptr<storage::cloudprovider::CloudClient> m_store;
    std::shared_ptr<storage::clients::FailureRecordingClient> m_recorder;
    std::shared_ptr<storage::clients::CancellableClient> m_client;
    std::shared_ptr<const fsp::IProvider> m_provider;
    bool m_failed = false; // set by the main thread only

    const foundation::usm::ContextScope m_context; // long listings inside the provider may be interrupted
};

} // namespace cloudfs
