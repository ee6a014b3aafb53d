#pragma once

#include <storage/cloudprovider/CloudClient.hpp>
#include <storage/cloudprovider/Export.hpp>

#include <foundation/storage/provider/ByteStream.hpp>
#include <foundation/storage/provider/ByteStreamOpenOptions.hpp>
#include <foundation/storage/provider/StorageIRI.hpp>

#include <memory>

namespace storage::cloudprovider
{

class OpenPartManager;

/// The registry of open files.
///
/// All streams of a process that are open on one IRI share one OpenPartManager, and thus one set of parts, one upload
/// and one view of the contents. Files are identified by their IRI: two IRIs with the same key count as two files, so a
/// host must use one spelling per file.
///
/// The streams own the part manager; the registry has only a weak reference to it. The file is closed when its last
/// stream is closed. Any thread may call any operation. Neither the store nor a part manager is called while the
/// registry's lock is held, so a slow open delays only opens of the same file.
class CLOUDPROVIDER_EXPORT OpenFileManager
{
public:
    OpenFileManager();
    OpenFileManager(const OpenFileManager&) = delete;
    OpenFileManager& operator=(const OpenFileManager&) = delete;
    ~OpenFileManager();

    /// Return whether the file is open or being opened. Does not wait for an open in progress.
    bool isOpen(foundation::storage::provider::StorageIRI iri);

    /// Return the file's part manager. Build it if the file is not open yet.
    ///
    /// Waits while another thread is opening the same file. If that open fails, this call opens the file itself. If the
    /// file is already open, `create` and `truncate` are ignored, so no contents are discarded. A caller that has to
    /// start empty checks the end of its stream.
    ///
    /// @param create    MustExist: a missing file is an error; any other value: a missing file starts empty
    /// @param truncate  Keep: start with the stored contents; any other value: start empty. The stored object remains
    ///                  until the last stream closes.
    /// @throws ResourceNotFoundException when the file must exist and does not
    /// @throws CloudException from the store; this includes a rejected name when the file may be created
    std::shared_ptr<OpenPartManager> open(foundation::storage::provider::StorageIRI iri,
        foundation::storage::provider::ByteStreamCreate create,
        foundation::storage::provider::ByteStreamTruncate truncate, CloudClientSharedPtr client);

    /// Open an existing file for reading. Writing to the stream fails (PermissionDenied). Throws like open().
    foundation::storage::provider::ByteStreamPtr openReadOnly(
        foundation::storage::provider::StorageIRI iri, CloudClientSharedPtr client);

    /// Open a file for writing, and also for reading if the options allow it.
    ///
    /// The file is written to the store when its last stream is closed. Close the stream explicitly: the destructor
    /// closes an open stream too, but can only log a failure. Throws like open().
    foundation::storage::provider::ByteStreamPtr openReadWrite(foundation::storage::provider::StorageIRI iri,
        const foundation::storage::provider::ByteStreamOpenOptions& options, CloudClientSharedPtr client);

private:
    struct CLOUDPROVIDER_HIDDEN Registry;
    const std::unique_ptr<Registry> m_registry;
};

/// Return the registry that all providers in this process use. It exists until the process exits.
CLOUDPROVIDER_EXPORT OpenFileManager& globalOpenFileManager();

} // namespace storage::cloudprovider
