#pragma once

#include <map>
#include <string>

namespace storage::clients::s3
{

/// The variables that lead to credentials, as they were when the value was made.
class Environment
{
public:
    using Variables = std::map<std::string, std::string, std::less<>>;

    /// Those of the process. No other thread may change the environment meanwhile.
    static Environment ofProcess();

    explicit Environment(Variables variables);

    /// Empty when the variable is not set, which means the same. Valid for the life of this.
    const std::string& operator[](std::string_view name) const;

private:
    Variables m_variables;
};

} // namespace storage::clients::s3
