#pragma once

#include <storage/clients/s3/S3Settings.hpp>

#include <string>
#include <string_view>

namespace storage::clients::s3
{

/// The address of one bucket or access point: its host, and the paths of its keys. A value.
class BucketAddress
{
public:
    /// @throws cloudprovider::InvalidLocationException when the bucket, the region or the endpoint is not valid
    explicit BucketAddress(const S3Settings& settings);

    /// The same bucket in another region, which the store has named.
    /// @throws cloudprovider::InvalidLocationException when that is not a valid name
    BucketAddress inRegion(std::string region) const;

    const std::string& bucket() const noexcept { return m_bucket; }
    const std::string& region() const noexcept { return m_region; }
    const std::string& endpointPath() const noexcept { return m_basePath; }

    /// The value of the Host field: without the port when that is the scheme's default.
    std::string host() const;

    /// The encoded path of a key; of the bucket itself when the key is empty.
    /// @throws cloudprovider::InvalidLocationException when the key is too long with the prefix
    std::string path(std::string_view key) const;

    /// The encoded name of an object as the source of a copy.
    std::string copySource(std::string_view key) const;

    /// Scheme and host, to which path() is appended. Also shown in messages.
    std::string origin() const;

private:
    std::string m_bucket; ///< or the ARN of an access point
    std::string m_label;  ///< stands for it in host names and paths
    std::string_view m_service = "s3";
    std::string m_region;
    std::string m_scheme;
    std::string m_endpointHost; ///< with the port, unless it is the scheme's default; empty: the region's own
    std::string m_prefix;
    std::string m_basePath; ///< of an endpoint with a path, without a trailing "/"
    bool m_pathStyle = false;
};

} // namespace storage::clients::s3
