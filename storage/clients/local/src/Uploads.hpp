#pragma once

#include "Objects.hpp"
#include "StoreTransaction.hpp"

#include <storage/clients/common/UploadInventory.hpp>
#include <storage/cloudprovider/CloudClient.hpp>

#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace storage::clients::local
{

// Multipart uploads. From the first part on, they are in the index until they are completed or aborted, or until the
// next client opens the store after the one that began them has ended.

/// The uploads that one client has begun. An upload is added to the index with its first part, so an index that cannot
/// be written fails a part, which the writer sees, and not the beginning of the upload. Safe for concurrent calls.
class BegunUploads
{
public:
    /// @param base  the object that the new one is made from, if there is one
    /// @return the id of a new upload: random, so that it differs from those of other clients of the store
    std::string begin(const std::string& key, std::optional<std::int64_t> base);

    /// Find an upload: one in the index, or one that this client has begun and that has no part yet.
    ///
    /// @param uploadId  as begin() returned it
    /// @throws StoreError when this key has no upload with this id
    std::int64_t require(Connection& index, const std::string& key, const std::string& uploadId) const;

    /// The same for a part that is about to be stored: the upload is added to the index if it is not there.
    std::int64_t requireForPart(StoreTransaction& transaction, const std::string& key, const std::string& uploadId);

    /// To be called after the transaction of requireForPart() was committed.
    void partStored(std::int64_t upload);

    /// To be called in the transaction that ends the upload, before its commit: between the two, another thread could
    /// store a part, which would add the upload again. If the commit fails, an upload that has parts remains.
    void end(std::int64_t upload);

private:
    struct Begun
    {
        std::string key;
        std::optional<std::int64_t> base;
        bool hasParts = false; // if so and it is not in the index, another client has ended it
    };

    std::optional<Begun> findWithoutParts(std::int64_t upload, const std::string& key) const;

    mutable std::mutex m_mutex;                      // innermost
    std::unordered_map<std::int64_t, Begun> m_begun; // guarded by m_mutex; by id
};

/// End the uploads of clients that have ended, or were killed: nobody completes them. Does not wait for a writer.
///
/// @throws StoreError, of kind Locked while another client writes; nothing has changed
void endUploadsOfDeadClients(Database& database, ContentFiles& files);

/// List the uploads in the index, the oldest first.
std::vector<PendingUpload> listUploads(Connection& index);

/// Store the content as a part, replacing what was sent for it before. Takes over one reference to the content.
///
/// @param source  the object that the part was copied from; empty: it was sent
void setUploadPart(StoreTransaction& transaction, std::int64_t upload, std::size_t part, std::int64_t content,
    std::optional<std::int64_t> source);

/// End the upload and drop its parts.
///
/// @return false: it is not in the index, because it has no parts or has ended
bool endUpload(StoreTransaction& transaction, std::int64_t upload);

/// Make the listed parts the object under the key, and end the upload. No bytes are moved.
///
/// @param descends  tells whether the first object was made by this client from the second one
/// @return the new object
/// @throws UnknownErrorException from checkPartList(), and when the object under the key is not the one that a listed
///         part was copied from, or was not made from the upload's base
StoredObject completeUpload(StoreTransaction& transaction, const std::string& key, std::int64_t upload,
    const std::vector<cloudprovider::PartInfo>& parts,
    const std::function<bool(std::int64_t stored, std::int64_t base)>& descends);

} // namespace storage::clients::local
