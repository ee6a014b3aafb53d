#pragma once

#include "Retry.hpp"

#include <storage/clients/common/RequiredVersions.hpp>
#include <storage/clients/common/VersionPins.hpp>
#include <storage/clients/remote/RemoteStore.hpp>

#include <cstdint>
#include <iosfwd>
#include <optional>
#include <string>

namespace storage::clients
{

/// Puts and deletes objects in one request, under the conditions of RequiredVersions, and finds out what a request with
/// a lost response has done. Safe for concurrent calls.
class ObjectWriter
{
public:
    ObjectWriter(RemoteStore& store, Retry& retry, VersionPins& pins, RequiredVersions& required)
        : m_store(store)
        , m_retry(retry)
        , m_pins(pins)
        , m_required(required)
    {
    }

    void put(const std::string& key, std::istream& content, std::uint64_t size);
    void remove(const std::string& key);

private:
    std::string putAs(const std::string& key, const std::string& required, RequestBody& body);
    void removeAs(const std::string& key, const std::string& required);

    RemoteStore& m_store;
    Retry& m_retry;
    VersionPins& m_pins;
    RequiredVersions& m_required;
};

} // namespace storage::clients
