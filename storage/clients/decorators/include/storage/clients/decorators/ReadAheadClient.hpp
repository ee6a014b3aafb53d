#pragma once

#include <storage/clients/decorators/InterceptingClient.hpp>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <memory>
#include <string>
#include <vector>

namespace storage::clients
{

class ReadAhead;

/// Limits of a ReadAheadClient. If either is 0, it prefetches nothing and starts no thread.
struct ReadAheadSettings
{
    std::size_t transfers = 8; ///< maximum ranges that are prefetched concurrently, one thread each

    /// Maximum bytes of prefetched ranges of all objects, including ranges that are queued or in flight. If this is
    /// less than one range as readers request them, nothing is prefetched.
    std::uint64_t memory = 64 << 20;
};

/// Prefetch what a sequential reader will request next, on threads of its own.
///
/// Detection: a range is consecutive if it starts where the previous range of its reader ended. A reader that starts at
/// offset 0 counts as sequential from its second range in a row; one that starts elsewhere, from its third. So neither
/// the first range of an object triggers a prefetch nor a single access in its middle, even one that spans two parts.
/// The window, which is what is prefetched beyond the reader, starts at one range. Each consecutive range doubles it,
/// and it closes when the reader seeks elsewhere. Up to 8 readers of one object are tracked separately. Readers at the
/// same position share the prefetched bytes.
///
/// Memory: bytes that all their readers have read are dropped. Bytes that are not read are dropped when other readers
/// have read some hundreds of ranges meanwhile, or need the memory. Without further reads, the bytes that the last
/// readers left unread stay in memory; `memory` limits them.
///
/// Objects: an object is prefetched only if its size is known from a getObjectParts() through this client, after the
/// last write through this client. The sizes of 256 objects are kept; the least recently used is forgotten. Reads of
/// the whole object (0, 0) and ranges that were not predicted pass straight through. A range is served from memory
/// completely or not at all.
///
/// Versions: ranges are prefetched by the same calls that a reader would make, so they come from the version that the
/// inner client pins for readers. If it pins none, another program may change the object between two calls. Prefetched
/// bytes are dropped when getObjectParts() fails or returns other parts than before, and at the start and at the end of
/// putObject(), deleteObject() and completeMultipartUpload() (see replacesObject()), whether these succeed or not. Once
/// one of these calls has returned, no byte is delivered that was prefetched before it.
///
/// Failures: a failed prefetch is not an error. It is logged and closes the window. The reader then requests the range
/// from the inner client itself, and gets the error of that call if it fails, too.
///
/// Threads: any thread may call at any time. A call may wait for a range that another thread is already fetching. No
/// lock is held during calls of the inner client. Threads start on demand. The destructor ends them: it drops queued
/// ranges and waits for those in flight, for as long as the inner client takes. Destroy the client only when no call is
/// in progress.
class ReadAheadClient : public InterceptingClient
{
public:
    explicit ReadAheadClient(std::shared_ptr<cloudprovider::CloudClient> inner, ReadAheadSettings settings = {});
    ~ReadAheadClient() override;

    void getObjectRange(const std::string& key, std::ostream& out, std::uint64_t first, std::uint64_t last) override;
    std::vector<cloudprovider::PartInfo> getObjectParts(const std::string& key) override;

protected:
    void around(const Call& call, const std::function<void()>& proceed) override;

private:
    const std::unique_ptr<ReadAhead> m_readAhead;
};

} // namespace storage::clients
