#include "StagedContent.hpp"

#include "Files.hpp"

#include <storage/clients/common/Content.hpp>

#include <algorithm>
#include <vector>

namespace storage::clients::local
{

namespace
{

constexpr std::uint64_t chunkSize = 1024 * 1024; // bytes read from a stream at a time

} // namespace

StagedContent::StagedContent(ContentFiles& files, std::uint64_t size, bool inFile)
    : m_size(size)
{
    if (inFile)
    {
        m_file.emplace(files.create());
    }
}

void StagedContent::receive(const std::string& key, std::istream& content)
{
    if (!m_file)
    {
        m_bytes.resize(m_size);
        readContent(key, content, m_bytes.data(), m_size);
        return;
    }
    std::vector<char> chunk(std::min(chunkSize, m_size));
    for (std::uint64_t rest = m_size; rest > 0;)
    {
        const std::uint64_t count = std::min<std::uint64_t>(chunk.size(), rest);
        readContent(key, content, chunk.data(), count);
        m_file->append(chunk.data(), count);
        m_hasher.add(chunk.data(), count);
        rest -= count;
    }
    sync();
}

void StagedContent::append(const Segment& segment)
{
    const bool isFile = !segment.path.empty();
    readSegment(segment,
        [&](const char* bytes, std::uint64_t size)
        {
            if (!m_file)
            {
                m_bytes.append(bytes, size);
                return;
            }
            m_hasher.add(bytes, size);
            if (!isFile)
            {
                m_file->append(bytes, size);
            }
        });
    if (m_file && isFile)
    {
        // By the kernel, where it can share blocks. The hashes are of the bytes that were checked.
        m_file->append(segment.file, segment.path, segment.offset, segment.size);
    }
}

void StagedContent::sync()
{
    if (m_file)
    {
        m_file->sync();
    }
}

} // namespace storage::clients::local
