#pragma once

#include <foundation/storage/provider/ByteStreamFailure.hpp>
#include <foundation/storage/provider/IProvider.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

/// The bytes of one file in memory; written back when the stream is closed.
class SmallStream : public fsp::ByteStream
{
public:
    SmallStream(std::string* file, const fsp::ByteStreamOpenOptions& options, bool failing)
        : m_file(file)
        , m_options(options)
        , m_failing(failing)
        , m_bytes(options.truncate == fsp::ByteStreamTruncate::Keep ? *file : "")
    {
    }

protected:
    std::streamsize doRead(char* s, std::streamsize n) override
    {
        if (m_failing)
        {
            throw fsp::ByteStreamReadFailure(fsp::ErrorCode::PermissionDenied);
        }
        const std::size_t count = m_bytes.copy(s, static_cast<std::size_t>(n), std::min(m_offset, m_bytes.size()));
        m_offset += count;
        return count == 0 && n > 0 ? -1 : static_cast<std::streamsize>(count);
    }

    std::streamsize doWrite(const char* s, std::streamsize n) override
    {
        if (m_failing)
        {
            return -1;
        }
        if (m_options.writePosition == fsp::ByteStreamWritePosition::Append)
        {
            m_offset = m_bytes.size();
        }
        const auto count = std::min<std::size_t>(static_cast<std::size_t>(n), 1000); // short, as streams may
        m_bytes.resize(std::max(m_bytes.size(), m_offset + count));
        std::memcpy(m_bytes.data() + m_offset, s, count);
        m_offset += count;
        return static_cast<std::streamsize>(count);
    }

    std::streampos doSeek(const fsp::stream_offset off, const std::ios_base::seekdir way) override
    {
        const std::size_t base = way == std::ios_base::beg ? 0 : way == std::ios_base::cur ? m_offset : m_bytes.size();
        m_offset = base + static_cast<std::size_t>(off);
        return static_cast<std::streamoff>(m_offset);
    }

    void doClose() override
    {
        if (m_file != nullptr)
        {
            *std::exchange(m_file, nullptr) = m_bytes;
        }
    }

private:
    std::string* m_file;
    const fsp::ByteStreamOpenOptions m_options;
    const bool m_failing;
    std::string m_bytes;
    std::size_t m_offset = 0;
};

/// Lists entries that it was given.
class SmallIterator : public fsp::IClonableFolderEntryIterator<SmallIterator>
{
public:
    explicit SmallIterator(std::vector<fsp::FolderEntry> entries)
        : m_entries(std::move(entries))
    {
    }

    fsp::FolderEntry getCurrent() const override { return m_entries.at(m_next - 1); }
    bool hasNext() const override { return m_next < m_entries.size(); }
    void next() override { ++m_next; }

private:
    std::vector<fsp::FolderEntry> m_entries;
    std::size_t m_next = 0;
};

/// The least that a provider overrides: the framework's defaults do the rest. For one thread.
class SmallProvider : public fsp::IProvider
{
public:
    // By path; a folder has no contents. The root is always there.
    mutable std::map<std::u16string, std::optional<std::string>> nodes;
    mutable std::vector<std::u16string> createdFolders;
    bool failingStreams = false;

    /// Stands for somebody else who is faster: creates whatever is about to be created.
    bool othersCreateFolders = false;

protected:
    void doCreateFolder(const fsp::StorageIRI& iri) const override
    {
        if (othersCreateFolders)
        {
            nodes.emplace(iri.getPath(), std::nullopt);
        }
        if (!nodes.emplace(iri.getPath(), std::nullopt).second)
        {
            throw fsp::Exception(fsp::ErrorCode::AlreadyExists, iri);
        }
        createdFolders.push_back(iri.getPath());
    }

    bool doFileExists(const fsp::StorageIRI& iri) const override
    {
        const auto found = nodes.find(iri.getPath());
        return found != nodes.end() && found->second;
    }

    bool doFolderExists(const fsp::StorageIRI& iri) const override
    {
        const auto found = nodes.find(iri.getPath());
        return !iri.hasParent() || (found != nodes.end() && !found->second);
    }

    fsp::FileAttributes doGetFileAttributes(const fsp::StorageIRI& iri) const override
    {
        return {bytesOf(iri).size(), boost::posix_time::ptime(), true};
    }

    fsp::FolderAttributes doGetFolderAttributes(const fsp::StorageIRI&) const override
    {
        return {boost::posix_time::ptime(), false};
    }

    fsp::ByteStreamPtr doOpenStream(
        const fsp::StorageIRI& iri, const fsp::ByteStreamOpenOptions& options) const override
    {
        if (options.create == fsp::ByteStreamCreate::IfMissing && !doFileExists(iri))
        {
            nodes[iri.getPath()] = std::string();
        }
        return std::make_unique<SmallStream>(&bytesOf(iri), options, failingStreams);
    }

    fsp::ByteStreamPtr doOpenReadOnlyStream(const fsp::StorageIRI& iri) const override
    {
        return doOpenStream(iri, {fsp::ByteStreamReadAccess::Allowed, fsp::ByteStreamCreate::MustExist,
                                     fsp::ByteStreamTruncate::Keep, fsp::ByteStreamWritePosition::AtOffset});
    }

    fsp::FolderEntryIteratorPtr doListAll(const fsp::StorageIRI&) const override { return list(true, true); }
    fsp::FolderEntryIteratorPtr doListFiles(const fsp::StorageIRI&) const override { return list(true, false); }
    fsp::FolderEntryIteratorPtr doListFolders(const fsp::StorageIRI&) const override { return list(false, true); }
    fsp::FolderEntryIteratorPtr doListAllRecursive(const fsp::StorageIRI&) const override
    {
        return list(true, true, true);
    }

private:
    std::string& bytesOf(const fsp::StorageIRI& iri) const
    {
        const auto found = nodes.find(iri.getPath());
        if (found == nodes.end() || !found->second)
        {
            throw fsp::Exception(fsp::ErrorCode::NotFound, iri);
        }
        return *found->second;
    }

    /// List below the root.
    fsp::FolderEntryIteratorPtr list(bool files, bool folders, bool recursive = false) const
    {
        std::vector<fsp::FolderEntry> entries;
        for (const auto& [path, bytes] : nodes)
        {
            const std::u16string name = path.substr(1);
            if (!recursive && name.find(u'/') != std::u16string::npos)
            {
                continue;
            }
            if (bytes && files)
            {
                entries.emplace_back(name, fsp::FileAttributes(bytes->size(), boost::posix_time::ptime(), true));
            }
            if (!bytes && folders)
            {
                entries.emplace_back(name, fsp::FolderAttributes(boost::posix_time::ptime(), true));
            }
        }
        return std::make_unique<SmallIterator>(std::move(entries));
    }
};

/// Run what must throw an Exception and give its code; look at the IRI that it names unless `iri` is empty.
template <class Operation>
fsp::ErrorCode codeOf(Operation operation, const fsp::StorageIRI& iri = {})
{
    try
    {
        operation();
    }
    catch (const fsp::Exception& exception)
    {
        EXPECT_TRUE(iri == fsp::StorageIRI() || exception.iri() == iri) << exception.what();
        return exception.errorCode();
    }
    return fsp::ErrorCode(-1, "nothing was thrown");
}
