#pragma once

#include <storage/clients/s3/S3Settings.hpp>

#include <string>
#include <string_view>

namespace storage::clients::s3
{

/// Where the requests for one bucket go: its host, and the paths of its keys. A value.
class BucketAddress
{
public:
    /// @throws cloudprovider::InvalidLocationException when bucket or endpoint are none
    explicit BucketAddress(const S3Settings& settings);

    /// The same bucket after the store said that it is in another region.
    BucketAddress inRegion(std::string region) const;

    const std::string& bucket() const noexcept { return m_bucket; }
    const std::string& region() const noexcept { return m_region; }

    /// What the Host field has: without the port when it is the scheme's own.
    std::string host() const;

    /// The encoded path of a key; of the bucket itself when the key is empty.
    std::string path(std::string_view key) const;

    /// Scheme and host, to which path() is appended. Also what people are shown.
    std::string origin() const;

private:
    std::string m_bucket;
    std::string m_region;
    std::string m_scheme;
    std::string m_endpointHost; ///< with the port, if it is not the scheme's own; empty: that of the region
    std::string m_basePath;     ///< of an endpoint behind a path, without a trailing "/"
    bool m_pathStyle = false;
};

} // namespace storage::clients::s3
