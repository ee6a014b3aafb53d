#pragma once

#include <storage/clients/common/VersionPins.hpp>
#include <storage/clients/http/HttpTimeouts.hpp>
#include <storage/clients/remote/CacheSettings.hpp>
#include <storage/clients/s3/Credentials.hpp>

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace storage::clients::s3
{

/// Properties of an endpoint. The first four are features: without one, the client does not rely on it and sends
/// additional requests instead. The last one is a restriction.
struct EndpointCapabilities
{
    /// `x-amz-copy-source-if-match` prevents copies of a part from another version of the object.
    bool conditionalCopies = false;

    /// `If-Match` prevents a completion from replacing another version of the object.
    bool conditionalCompletion = false;

    /// `If-None-Match: *` prevents a put or a completion from replacing any object, and `If-Match` prevents a put or a
    /// deletion of another version. Only used under a condition of WriteConditions.
    bool conditionalWrites = false;

    /// The name of a copy's source is decoded exactly once, so that a key with "%" never names another object.
    /// Otherwise the client downloads and uploads the bytes of such objects instead of copying them.
    bool copiesAnyKey = false;

    /// All parts of an object but the last must have the same size. Unchanged parts are then not joined, and stored
    /// objects are read in parts of at least 5 MiB. Without this, the client learns it when a completion is refused for
    /// it, and logs a warning; but then appended parts wait in temporary files.
    bool equalParts = false;

    bool operator==(const EndpointCapabilities&) const = default;
};

/// Who pays for requests, and how objects are stored. Empty values leave it to the bucket.
struct ObjectSettings
{
    bool requesterPays = false;    ///< agree to pay for requests to a bucket whose owner does not
    std::string storageClass = {}; ///< of new files, unless S3Settings::newMetadata is set

    /// What the store encrypts written objects with: `AES256` (a key of its own), `aws:kms` or `aws:kms:dsse` (a key of
    /// the key service).
    std::string encryption = {};
    std::string encryptionKey = {}; ///< id of the key service's key; empty: the account's default key

    /// 32 bytes that the store encrypts written objects with, and that it needs to read them: it does not keep them.
    /// All objects that are used must have this key. Only sent, and secret; so use https. Excludes `encryption`.
    std::string customerKey = {};
};

/// Where a bucket is, and how to talk to it.
struct S3Settings
{
    std::string bucket;            ///< or the ARN of an access point, which names the region, too
    std::string prefix = {};       ///< of all keys, with its last "/"; empty: the whole bucket
    std::string endpoint;          ///< http://HOST:PORT or https://HOST; empty: the region's own
    std::string region;            ///< what requests are signed for
    std::optional<bool> pathStyle; ///< the bucket is in the path, not in the host name; empty: if the names require it
    EndpointCapabilities capabilities = {};
    ObjectSettings objects = {};
    HttpTimeouts timeouts = {};

    std::size_t transfers = 8;          ///< see RemoteSettings, also for the next two
    std::uint64_t memory = 64 << 20;    ///< bytes
    std::uint64_t partSize = 256 << 10; ///< bytes
    CacheSettings cache = {};
    std::filesystem::path authorities = {}; ///< PEM file that replaces the system's certificate authorities
    std::shared_ptr<CredentialsSource> credentials = nullptr; ///< null: defaultCredentials() of the profile
    std::string profile = {};                                 ///< see there

    /// Called at least ten times a second during a request, on the thread that waits for it. When it returns true,
    /// nothing is retried and requests in progress are cancelled, one that opens an upload only after
    /// HttpTimeouts::cleanUp. Only deletions and aborts are sent from then on, because they clean up;
    /// HttpTimeouts::cleanUp limits them. Null: nothing is cancelled.
    std::function<bool()> interrupted = nullptr;

    /// The metadata of a new file, as fields of the request: Content-Type, Cache-Control, `x-amz-meta-…`,
    /// x-amz-storage-class, x-amz-tagging and the like. Must be safe to call from any thread. Null: the Content-Type of
    /// contentTypeOf(), if that is known, and ObjectSettings::storageClass.
    std::function<ObjectMetadata(const std::string& key)> newMetadata = nullptr;
};

/// Parse a store's URL: `s3://BUCKET/PREFIX?endpoint=URL&region=REGION&path-style=1`.
///
/// Without a prefix, the bucket is the root of the store. With one, only the objects below it are in the store, and
/// neither keys nor messages contain it. The bucket may be the ARN of an access point. All parameters are optional;
/// values may be percent-encoded. The others are: `transfers=N`, `memory=BYTES`, `part-size=BYTES`, `cache=DIR`,
/// `cache-size=BYTES`, `profile=NAME` (a section of the shared files), `anonymous=1`, `ca-file=PATH`,
/// `request-payer=requester`, `storage-class=NAME`, `sse=AES256`, `sse=aws:kms` or `sse=aws:kms:dsse`, `sse-key=ID`,
/// `sse-c-key-file=PATH` (which is read now), and the endpoint's capabilities `conditional-copies=1`,
/// `conditional-completion=1`, `conditional-writes=1`, `copies-any-key=1` and `equal-parts=1`. The endpoint defaults to
/// defaultEndpoint(), else the region's own, the region to defaultRegion(), else us-east-1, and the file of authorities
/// to defaultAuthorities().
/// @throws cloudprovider::InvalidLocationException whose detail says what is wrong; it never repeats what may be a
///         secret; cloudprovider::InvalidCredentialsException as defaultEndpoint()
S3Settings parseS3Url(const std::string& url);

} // namespace storage::clients::s3
