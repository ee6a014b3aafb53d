#pragma once

#include "SmallObjectCache.hpp"

#include "protocol/Requester.hpp"

#include <storage/clients/common/Content.hpp>
#include <storage/clients/common/RequiredVersions.hpp>
#include <storage/clients/common/TransientException.hpp>
#include <storage/clients/common/VersionPins.hpp>
#include <storage/cloudprovider/CloudClient.hpp>

#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

namespace storage::clients::s3
{

/// Whole objects of a bucket: lookup, listing, reading, writing, removal. The operations are those of CloudClient.
class Objects
{
public:
    Objects(Requester& requester, VersionPins& pins, RequiredVersions& required, const S3Settings& settings);

    /// @param operation  the caller's, for messages
    /// @return nothing when there is no such object
    std::optional<cloudprovider::ObjectInfo> info(Operation operation, const std::string& key);

    std::vector<cloudprovider::ObjectEntry> list(
        const std::string& prefix, std::string& token, const cloudprovider::ListOptions& options);

    void remove(const std::string& key);

    void read(const std::string& key, std::ostream& out, std::uint64_t first, std::uint64_t last);

    /// Read from one version of an object.
    ///
    /// @param operation  the caller's, for messages
    /// @param range      not empty; nothing: the whole object
    /// @param version    nothing: any
    /// @return false, with nothing written, when the object is not that version
    bool readVersion(Operation operation, const std::string& key, std::ostream& out,
        const std::optional<ByteRange>& range, const std::optional<Version>& version);

    void put(const std::string& key, std::istream& content, std::uint64_t size);

    std::vector<cloudprovider::PartInfo> parts(const std::string& key);

    /// Send a request that must create the object. An endpoint that knows no conditions on writes may refuse the
    /// header as not implemented, or as a bad request; it gets the request again without it, unless conditionalWrites
    /// is set: then nobody has looked for the object before.
    ///
    /// @param send  sends the request
    /// @throws PreconditionFailed when there is an object
    template <typename Send>
    auto sendToCreate(S3Request& request, Send&& send)
    {
        const HttpHeaders unconditional = request.headers;
        request.headers.add("If-None-Match", "*");
        try
        {
            return send();
        }
        catch (const cloudprovider::UnsupportedOperationException&)
        {
            m_conditionalWrites ? throw : request.headers = unconditional;
        }
        catch (const NotUnderstood&)
        {
            m_conditionalWrites ? throw : request.headers = unconditional;
        }
        return send();
    }

private:
    void putAs(const std::string& required, S3Request& request, VersionPins::Write& write);
    bool existsByGet(S3Request request);
    std::optional<Version> fetchBeginning(const std::string& key);
    void requireMissingKey(const S3Request& request, const HttpResponse& response);

    Requester& m_requester;
    VersionPins& m_pins;
    SmallObjectCache m_contents;
    RequiredVersions& m_required;
    const bool m_conditionalWrites;
    const std::uint64_t m_partSize; // bytes of the parts that stored objects are cut into
};

} // namespace storage::clients::s3
