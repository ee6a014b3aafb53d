#pragma once

#include <map>
#include <string>

namespace storage::clients::s3
{

/// The environment variables that matter for credentials, as they were when the value was created.
class Environment
{
public:
    using Variables = std::map<std::string, std::string, std::less<>>;

    /// Read those of the process. No other thread may change the environment during the call.
    static Environment ofProcess();

    explicit Environment(Variables variables);

    /// The value of a variable; empty when it is not set, which means the same. Valid as long as this object.
    const std::string& operator[](std::string_view name) const;

private:
    Variables m_variables;
};

} // namespace storage::clients::s3
