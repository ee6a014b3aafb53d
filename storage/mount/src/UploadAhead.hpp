#pragma once

#include "PartStream.hpp"

#include <storage/cloudprovider/CloudClient.hpp>

#include <cstdint>
#include <string>
#include <vector>

namespace storage::mount
{

/// A new version of a file whose parts leave while the file is still being written.
///
/// Each part is sent once when it is full, and once more by complete() if it was written again since. Not safe for
/// concurrent calls.
class UploadAhead
{
public:
    /// @param partSize  bytes of each part but the last
    UploadAhead(cloudprovider::CloudClient& client, std::string key, std::uint64_t partSize);

    UploadAhead(const UploadAhead&) = delete;
    UploadAhead& operator=(const UploadAhead&) = delete;

    /// Discards what was sent, unless complete() has succeeded. Blocks until the store has responded.
    ~UploadAhead();

    /// Whether a part is full and was never sent.
    ///
    /// @param written  the bytes [0, written) were written
    bool canSend(std::uint64_t written) const;

    /// Whether complete() makes sense: something was sent, and the store takes as many parts.
    ///
    /// @param size  of the file, in bytes
    bool canComplete(std::uint64_t size) const;

    /// Take note that bytes [offset, offset + size) were written.
    void changed(std::uint64_t offset, std::uint64_t size);

    /// Take note that the file was cut off.
    void cut(std::uint64_t size);

    /// Send the part that canSend() is about. @param read  reads its bytes; not called when this has returned
    void sendNext(const ReadBytes& read);

    /// Send what is missing, and let the object become visible.
    ///
    /// @param size  of the file, in bytes
    void complete(std::uint64_t size, const ReadBytes& read);

private:
    void send(cloudprovider::PartInfo& part, const ReadBytes& read);

    cloudprovider::CloudClient& m_client;
    const std::string m_key;
    const std::uint64_t m_partSize;
    const std::string m_id;
    std::vector<cloudprovider::PartInfo> m_parts; // with an empty tag: to be sent again
    bool m_isComplete = false;
};

} // namespace storage::mount
