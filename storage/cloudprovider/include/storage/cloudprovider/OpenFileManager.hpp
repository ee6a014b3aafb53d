#pragma once

#include <storage/cloudprovider/CloudClient.hpp>
#include <storage/cloudprovider/Export.hpp>

#include <foundation/storage/provider/ByteStream.hpp>
#include <foundation/storage/provider/ByteStreamOpenOptions.hpp>
#include <foundation/storage/provider/StorageIRI.hpp>

#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>

namespace storage::cloudprovider
{

class OpenPartManager;

/// The registry of open files: all streams of a process on one IRI share one OpenPartManager, and so one set of parts,
/// one upload and one view of the contents. Two IRIs that make the same key are two files here: a host uses one
/// spelling.
///
/// The registry only observes: the streams own the part manager, and the file is closed when the last of them closes.
/// Any thread may call any operation. Neither the store nor a part manager is called while the registry's lock is held,
/// so a slow open delays only opens of the same file.
class CLOUDPROVIDER_EXPORT OpenFileManager
{
public:
    OpenFileManager();
    OpenFileManager(const OpenFileManager&) = delete;
    OpenFileManager& operator=(const OpenFileManager&) = delete;
    ~OpenFileManager();

    /// Tell whether the file is open or being opened. Does not wait for an open in progress.
    bool isOpen(foundation::storage::provider::StorageIRI iri);

    /// Return the file's part manager, building it when the file is not open yet.
    ///
    /// While another thread is opening the same file the call waits; when that open fails, this one tries for itself.
    /// For a file that is open already `create` and `truncate` are ignored: nobody's contents are discarded.
    ///
    /// @param create    MustExist: a missing file is an error, else it begins empty
    /// @param truncate  Keep: begin with the stored contents; else begin empty, and the stored object stands until the
    ///                  last stream closes
    /// @throws ResourceNotFoundException when the file must exist and does not
    /// @throws CloudException from the store, or its refusal of the name of a file that may be created
    std::shared_ptr<OpenPartManager> open(foundation::storage::provider::StorageIRI iri,
        foundation::storage::provider::ByteStreamCreate create,
        foundation::storage::provider::ByteStreamTruncate truncate, CloudClientSharedPtr client);

    /// Open an existing file for reading. Writes to the stream are refused. Throws like open().
    foundation::storage::provider::ByteStreamPtr openReadOnly(
        foundation::storage::provider::StorageIRI iri, CloudClientSharedPtr client);

    /// Open a file for writing, and for reading too when the options allow it.
    ///
    /// The contents reach the store when the last stream on the file is closed. Close the stream explicitly: a stream
    /// that is destroyed unclosed is closed then, and a failure can only be logged. Throws like open().
    foundation::storage::provider::ByteStreamPtr openReadWrite(foundation::storage::provider::StorageIRI iri,
        const foundation::storage::provider::ByteStreamOpenOptions& options, CloudClientSharedPtr client);

private:
    struct OpenFileEntry
    {
        std::weak_ptr<OpenPartManager> partManager;
        bool opening = false; // one thread builds the part manager, without the lock

        bool isStale() const { return !opening && partManager.expired(); }
    };

    void endOpening(const foundation::storage::provider::StorageIRI& iri, std::shared_ptr<OpenPartManager> partManager);

    std::map<foundation::storage::provider::StorageIRI, OpenFileEntry> m_entries; // guarded by m_mutex
    std::mutex m_mutex;                                                           // taken alone
    std::condition_variable m_openingEnded;
};

/// Return the registry that every provider of this process uses. It lives until the process exits.
CLOUDPROVIDER_EXPORT OpenFileManager& globalOpenFileManager();

} // namespace storage::cloudprovider
