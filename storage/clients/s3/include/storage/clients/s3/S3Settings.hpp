#pragma once

#include <storage/clients/s3/Credentials.hpp>
#include <storage/clients/s3/HttpTimeouts.hpp>

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace storage::clients::s3
{

/// What an endpoint is known to do beyond what every one does. Where nothing is known nothing is relied on: the client
/// then asks once more instead, which costs a request.
struct EndpointCapabilities
{
    /// `x-amz-copy-source-if-match` keeps a part from being copied from another version of the object.
    bool conditionalCopies = false;

    /// `If-Match` keeps a completion from replacing another version of the object.
    bool conditionalCompletion = false;

    /// The name of a copy's source is decoded once, as it should be, so that a key with "%" names no other object.
    /// Otherwise the bytes of such objects are read and sent again.
    bool copiesAnyKey = false;

    /// All parts of an object but the last must have one size. Parts are then neither joined nor smaller than 5 MiB.
    bool equalParts = false;

    bool operator==(const EndpointCapabilities&) const = default;
};

/// Where a bucket is, and how to talk to it.
struct S3Settings
{
    std::string bucket;
    std::string endpoint;          ///< http://HOST:PORT or https://HOST; empty: that of the region
    std::string region;            ///< what requests are signed for
    std::optional<bool> pathStyle; ///< the bucket stands in the path, not in the host name; nothing: as the names allow
    EndpointCapabilities capabilities = {};
    HttpTimeouts timeouts = {};
    std::size_t transfers = 8;       ///< requests at a time: of one completion here, of what openStore() adds; 1 to 64
    std::uint64_t memory = 64 << 20; ///< bytes; of the buffers that openStore() adds. What one completion sends at a
                                     ///< time takes up to half as many here, and never less than one part's
    std::uint64_t partSize = 256 << 10;     ///< bytes of the parts that stored objects are read in; 64 KiB to 1 GiB
    std::filesystem::path authorities = {}; ///< PEM file in place of the system's certificate authorities
    std::shared_ptr<CredentialsSource> credentials = nullptr; ///< null: defaultCredentials()

    /// Asked about once a second during a request, from the thread that waits for it: true ends requests that began
    /// before it became true, but for the opening of an upload; later ones, which clean up, go through. Null: nothing
    /// interrupts.
    std::function<bool()> interrupted = nullptr;
};

/// Read a store's URL: `s3://BUCKET?endpoint=URL&region=REGION&path-style=1`.
///
/// All parameters may be left out; values may be percent-encoded. Further ones: `transfers=N`, `memory=BYTES`,
/// `part-size=BYTES`, `profile=NAME` of the shared files, `anonymous=1`, `ca-file=PATH`, and `conditional-copies=1`,
/// `conditional-completion=1`, `copies-any-key=1` and `equal-parts=1` for what the endpoint can do. The endpoint
/// defaults to the variables AWS_ENDPOINT_URL_S3 and AWS_ENDPOINT_URL, the region to defaultRegion(), else us-east-1.
/// @throws cloudprovider::InvalidLocationException whose detail says what is wrong; it never repeats what may be a
/// secret
S3Settings parseS3Url(const std::string& url);

} // namespace storage::clients::s3
