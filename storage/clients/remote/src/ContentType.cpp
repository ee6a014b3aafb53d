#include <storage/clients/remote/ContentType.hpp>

#include <boost/algorithm/string/case_conv.hpp>

#include <fstream>
#include <sstream>

namespace storage::clients
{

namespace
{

constexpr const char* database = "/usr/share/mime/globs2";

/// What websites and mail need most, where there is no database.
constexpr const char* smallTable = R"(50:application/gzip:*.gz
50:application/gzip:*.tgz
50:application/javascript:*.js
50:application/json:*.json
50:application/pdf:*.pdf
50:application/wasm:*.wasm
50:application/xml:*.xml
50:application/zip:*.zip
50:audio/mpeg:*.mp3
50:font/woff2:*.woff2
50:image/gif:*.gif
50:image/jpeg:*.jpeg
50:image/jpeg:*.jpg
50:image/png:*.png
50:image/svg+xml:*.svg
50:image/webp:*.webp
50:text/css:*.css
50:text/csv:*.csv
50:text/html:*.htm
50:text/html:*.html
50:text/markdown:*.md
50:text/plain:*.txt
50:video/mp4:*.mp4
50:video/webm:*.webm
)";

std::string readDatabase()
{
    std::ostringstream all;
    all << std::ifstream(database).rdbuf();
    return all.str() + '\n' + smallTable;
}

} // namespace

ContentTypes::ContentTypes(std::istream& globs)
{
    for (std::string line; std::getline(globs, line);)
    {
        const std::size_t type = line.find(':') + 1;
        const std::size_t glob = line.find(':', type) + 1;
        if (line.starts_with('#') || type == 0 || glob == 0)
        {
            continue;
        }
        const std::string pattern = line.substr(glob, line.find(':', glob) - glob); // flags may follow
        if (pattern.substr(pattern.starts_with("*.") ? 1 : 0).find_first_of("*?[") == std::string::npos)
        {
            m_types.emplace(pattern, line.substr(type, glob - 1 - type));
        }
    }
}

std::string ContentTypes::of(const std::string& name) const
{
    for (const std::string& written : {name, boost::algorithm::to_lower_copy(name, std::locale::classic())})
    {
        if (const auto found = m_types.find(written); found != m_types.end())
        {
            return found->second;
        }
        for (std::size_t dot = 0; (dot = written.find('.', dot)) != std::string::npos; ++dot)
        {
            if (const auto found = m_types.find('*' + written.substr(dot)); found != m_types.end())
            {
                return found->second;
            }
        }
    }
    return {};
}

std::string contentTypeOf(const std::string& key)
{
    static const ContentTypes types = []
    {
        std::istringstream globs(readDatabase());
        return ContentTypes(globs);
    }();
    return types.of(key.substr(key.rfind('/') + 1));
}

} // namespace storage::clients
