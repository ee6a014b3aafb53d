#pragma once

#include <storage/clients/s3/S3Settings.hpp>

#include <functional>
#include <string>
#include <vector>

namespace storage::clients::s3
{

/// A feature of an endpoint, and what a probe has found out about it. Both are one line.
struct EndpointFeature
{
    std::string name;   ///< at most 40 characters
    std::string result; ///< begins with "yes", "no" or "unknown", and may go on with the reason
};

/// What an endpoint can do.
struct EndpointReport
{
    bool isUsable = true;                    ///< files of any size can be stored, read, listed and removed
    EndpointCapabilities capabilities = {};  ///< what S3Settings should say
    std::vector<std::string> leftovers = {}; ///< objects and uploads that could not be removed, each with the reason
};

/// Find out what an endpoint can do, with a few objects and uploads below a prefix of their own.
///
/// They are removed before the function returns, also after failures and an interrupt. In a bucket with versions, their
/// versions stay. Sends about 25 MiB. A request that fails temporarily is sent three times, and then what it was to
/// show is unknown. If the endpoint is not usable, or after an interrupt, the features that are left are not probed.
///
/// @param settings  of any bucket; the capabilities are ignored
/// @param found     called for each feature as soon as it is known. If it throws, everything is removed, and the
///                  exception passes.
/// @throws cloudprovider::InvalidLocationException when the settings are not a valid address. Other failures are
/// results. Blocks until all requests have ended.
EndpointReport probeEndpoint(
    const S3Settings& settings, const std::function<void(const EndpointFeature& feature)>& found);

} // namespace storage::clients::s3
