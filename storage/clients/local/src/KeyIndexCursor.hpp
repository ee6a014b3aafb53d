#pragma once

#include "Connection.hpp"

#include <storage/cloudprovider/CloudClient.hpp>

#include <string>
#include <string_view>

namespace storage::clients::local
{

/// A KeyCursor over the keys of the index, for listPage(). Must not outlive the transaction.
class KeyIndexCursor
{
public:
    explicit KeyIndexCursor(Connection& index);

    void seek(const std::string& key);
    void next();
    bool atEnd() const noexcept { return m_atEnd; }
    std::string_view key() const { return m_query.bytes(0); }
    cloudprovider::ObjectEntry entry() const;

private:
    std::string m_from; // bound to the query
    Query m_query;
    bool m_atEnd = true;
};

} // namespace storage::clients::local
