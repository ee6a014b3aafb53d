#pragma once

#include <string>

namespace storage::clients::test
{

/// A certificate signed by itself, with its key, both PEM. Serves as its own authority.
struct TestCertificate
{
    /// @param holder  whom it certifies, such as "IP:127.0.0.1" or "DNS:example.org"
    explicit TestCertificate(const std::string& holder);

    std::string certificate;
    std::string key;
};

} // namespace storage::clients::test
