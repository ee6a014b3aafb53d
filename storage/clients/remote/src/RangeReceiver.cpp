#include <storage/clients/remote/RangeReceiver.hpp>

#include <storage/clients/http/ResponseFields.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>

#include <fmt/format.h>

#include <algorithm>

namespace storage::clients
{

using namespace cloudprovider;

void RangeReceiver::take(const HttpResponse& head, std::string_view bytes)
{
    if (!m_expected)
    {
        check(head);
    }
    if (m_hash)
    {
        m_hash->add(bytes);
    }
    m_received += bytes.size();
    m_receiver(m_object, bytes);
}

Version RangeReceiver::finish(const HttpResponse& response)
{
    if (!m_expected || m_received != *m_expected)
    {
        throwMalformedResponse(
            m_context, response, fmt::format("{} bytes arrived instead of {}", m_received, m_expected.value_or(0)));
    }
    if (m_hash && m_hash->finish() != m_expectedHash)
    {
        throwCorruptContent(m_context, response);
    }
    return m_object;
}

Version RangeReceiver::finishBeyond(const HttpResponse& response, const std::optional<StoredObject>& object)
{
    if (m_version && (!object || object->version.tag != m_version->tag))
    {
        throwObjectChanged(m_context);
    }
    if (!object)
    {
        throw ResourceNotFoundException(m_context.action + " failed: there is no such object");
    }
    if (!m_range || m_range->offset < object->version.size)
    {
        throwMalformedResponse(m_context, response, "the object has bytes of the range");
    }
    m_receiver(object->version, {});
    return object->version;
}

void RangeReceiver::check(const HttpResponse& head)
{
    const std::string* const tag = head.headers.find("ETag");
    const auto length = lengthOf(head);
    if (tag == nullptr || !length)
    {
        throwMalformedResponse(
            m_context, head, "the response lacks the entity tag or its length"); // an error document, perhaps
    }
    m_object = {unquotedTag(*tag), *length, m_version ? nullptr : m_fields.metadata(head)};
    if (m_version && m_object.tag != m_version->tag)
    {
        throwObjectChanged(m_context);
    }
    if (m_range)
    {
        checkRange(head, *length);
    }
    m_expected = *length;
    m_expectedHash = m_fields.hash(head, m_object.tag, m_object.size == *length);
    if (!m_expectedHash.empty())
    {
        m_hash.emplace();
    }
}

void RangeReceiver::checkRange(const HttpResponse& head, std::uint64_t length)
{
    if (head.status != 206)
    {
        if (m_range->offset == 0 && length <= m_range->size)
        {
            return; // the whole object
        }
        throw UnsupportedOperationException(m_context.action + " failed: the store ignores ranges");
    }
    const std::string* const field = head.headers.find("Content-Range");
    const std::string_view place = field == nullptr ? "" : std::string_view(*field);
    const auto objectSize = readNumber(place.substr(place.find('/') + 1)); // the whole text when there is no slash
    if (!objectSize)
    {
        throwMalformedResponse(m_context, head, "the response lacks the size of the object");
    }
    const std::uint64_t end = std::min(m_range->offset + m_range->size, *objectSize);
    if (length != end - m_range->offset ||
        place != fmt::format("bytes {}-{}/{}", m_range->offset, end - 1, *objectSize))
    {
        throwMalformedResponse(m_context, head, "the response has other bytes than the requested ones");
    }
    m_object.size = *objectSize;
}

} // namespace storage::clients
