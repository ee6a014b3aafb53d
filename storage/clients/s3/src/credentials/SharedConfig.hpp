#pragma once

#include "CredentialsSources.hpp"

#include <storage/clients/credentials/SharedFile.hpp>

#include <initializer_list>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace storage::clients::s3
{

/// What the shared files say about one section.
struct SharedSection
{
    SharedSettings settings;
    std::string where; ///< for messages: profile "NAME" in FILE

    /// The value of a setting; empty when it has none. Valid as long as this object.
    const std::string& operator[](std::string_view name) const;
};

/// The two shared files as one. Of settings with the same name, that of the credentials file is used. Key id, secret
/// and token come from one file: a token belongs to its keys.
class SharedConfig
{
public:
    /// Read both files, from where the variables say, else from the home folder.
    /// @throws cloudprovider::InvalidCredentialsException when one exists and cannot be read
    explicit SharedConfig(const Environment& environment);

    /// Null when neither file has it. Valid as long as this object.
    const SharedSection* section(const std::string& kind, const std::string& name) const;
    const SharedSection* profile(const std::string& name) const { return section("profile", name); }

    /// Where the files are, for messages.
    std::string files() const;

private:
    std::vector<SharedFile> m_files;
    std::map<SharedSections::key_type, SharedSection> m_sections;
};

/// The profile that the caller or a variable names; empty when none is named, which means "default".
const std::string& namedProfile(const SourceContext& context);

/// A setting from the first of the variables that is set, else from the profile; empty when there is none.
///
/// @throws cloudprovider::InvalidCredentialsException as above
std::string configured(
    const SourceContext& context, std::initializer_list<const char*> variables, std::string_view setting);

/// An endpoint that replaces the store's own.
struct ConfiguredEndpoint
{
    std::string url = {};     ///< empty: none is configured
    std::string namedBy = {}; ///< what names it, for errors
};

/// The endpoint of a service: that of AWS_ENDPOINT_URL_SERVICE, else AWS_ENDPOINT_URL, else endpoint_url of the service
/// in the section that the profile's `services` names, else endpoint_url of the profile. None where
/// AWS_IGNORE_CONFIGURED_ENDPOINT_URLS or ignore_configured_endpoint_urls is true.
///
/// @param service  in lower case, such as "s3"
/// @throws cloudprovider::InvalidCredentialsException as above, and when there is no section of that name
ConfiguredEndpoint configuredEndpoint(const SourceContext& context, const std::string& service);

} // namespace storage::clients::s3
