#include "SharedBytes.hpp"

#include <storage/clients/common/Content.hpp>

#include <algorithm>
#include <istream>
#include <utility>

namespace storage::clients
{

SharedBytes::SharedBytes(std::string_view bytes)
    : m_size(bytes.size())
{
    if (!bytes.empty())
    {
        auto buffer = std::make_shared_for_overwrite<char[]>(bytes.size());
        std::copy(bytes.begin(), bytes.end(), buffer.get());
        m_slices.push_back({std::move(buffer), 0, bytes.size()});
    }
}

SharedBytes::SharedBytes(const std::string& key, std::istream& content, std::uint64_t size)
    : m_size(size)
{
    if (size != 0)
    {
        auto buffer = std::make_shared_for_overwrite<char[]>(size);
        readContent(key, content, buffer.get(), size);
        m_slices.push_back({std::move(buffer), 0, size});
    }
}

template <typename Use>
void SharedBytes::forEach(std::uint64_t offset, std::uint64_t size, Use use) const
{
    for (auto slice = m_slices.begin(); size != 0; ++slice)
    {
        if (offset >= slice->size)
        {
            offset -= slice->size;
            continue;
        }
        const std::size_t piece = std::min<std::size_t>(size, slice->size - offset);
        use(*slice, offset, piece);
        size -= piece;
        offset = 0;
    }
}

void SharedBytes::append(const SharedBytes& source, std::uint64_t offset, std::uint64_t size)
{
    source.forEach(offset, size,
        [this](const Slice& slice, std::size_t from, std::size_t count) {
            m_slices.push_back({slice.buffer, slice.offset + from, count});
        });
    m_size += size;
}

void SharedBytes::write(const std::string& key, std::ostream& out, std::uint64_t offset, std::uint64_t size) const
{
    forEach(offset, size,
        [&](const Slice& slice, std::size_t from, std::size_t count)
        { writeContent(key, out, slice.buffer.get() + slice.offset + from, count); });
}

} // namespace storage::clients
