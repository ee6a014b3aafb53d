#include <storage/clients/http/HttpMessage.hpp>

#include <boost/algorithm/string/predicate.hpp>

#include <algorithm>

namespace storage::clients
{

const std::string* HttpHeaders::find(std::string_view name) const
{
    const auto found = std::find_if(m_fields.rbegin(), m_fields.rend(),
        [name](const Field& field) { return boost::algorithm::iequals(field.name, name); });
    return found == m_fields.rend() ? nullptr : &found->value;
}

} // namespace storage::clients
