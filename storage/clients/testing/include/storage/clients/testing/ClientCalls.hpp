#pragma once

#include <storage/cloudprovider/CloudClient.hpp>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace storage::clients::conformance
{

// Calls of any client, for tests: contents are strings, and a listing is all of its pages.

void put(cloudprovider::CloudClient& client, const std::string& key, const std::string& content);

std::string get(
    cloudprovider::CloudClient& client, const std::string& key, std::uint64_t first = 0, std::uint64_t last = 0);

/// @return the part's record for completeMultipartUpload()
cloudprovider::PartInfo uploadPart(cloudprovider::CloudClient& client, const std::string& key,
    const std::string& uploadId, std::size_t index, const std::string& content, std::uint64_t offset = 0);

/// Replace the object by one of these parts, with one upload.
void putParts(cloudprovider::CloudClient& client, const std::string& key, const std::vector<std::string>& parts);

/// Fails the test when a page is longer than options.maxKeys, or the listing does not end.
std::vector<cloudprovider::ObjectEntry> list(
    cloudprovider::CloudClient& client, const std::string& prefix, const cloudprovider::ListOptions& options = {});

std::vector<std::string> keys(cloudprovider::CloudClient& client, const std::string& prefix = "");

} // namespace storage::clients::conformance
