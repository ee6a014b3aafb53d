#include <foundation/storage/provider/IProvider.hpp>

#include "TransactionalByteStream.hpp"
#include "copyBytes.hpp"

#include <fl/filesystem.hpp>

#include <algorithm>
#include <exception>
#include <vector>

// Default operations that call other operations. Those that only throw ErrorCode::Unsupported are in
// UnsupportedOperations.cpp, the listings in DefaultListings.cpp.

namespace foundation::storage::provider
{

namespace
{

/// Get the local folder that a "file" IRI names; empty for the empty IRI.
fl::filesystem::path localFolder(const StorageIRI& iri)
{
    if (iri == StorageIRI())
    {
        return {};
    }
    const StorageIRI resolved = iri.getResolvedIRI();
    if (resolved.getScheme() != u"file" || !resolved.getAuthority().empty())
    {
        throw Exception(ErrorCode(ErrorCode::InvalidLocation, "a scratch folder must be named by file:///folder"), iri);
    }
    return fl::filesystem::path(resolved.getPath());
}

void appendZeros(ByteStream& stream, std::uint64_t count)
{
    const std::vector<char> zeros(static_cast<std::size_t>(copyChunk));
    while (count > 0)
    {
        const auto chunk = std::min<std::uint64_t>(count, zeros.size());
        writeAll(stream, zeros.data(), static_cast<std::streamsize>(chunk));
        count -= chunk;
    }
}

} // namespace

IProvider::~IProvider() = default;

void IProvider::doCreateFolderRecursive(const StorageIRI& iri) const
{
    std::vector<StorageIRI> missing; // innermost first
    for (StorageIRI folder = iri; !folderExists(folder); folder = folder.getParent())
    {
        missing.push_back(folder);
        if (!folder.hasParent())
        {
            break;
        }
    }
    for (; !missing.empty(); missing.pop_back())
    {
        try
        {
            createFolder(missing.back());
        }
        catch (const Exception& exception)
        {
            // Another thread or process may have created it since the check. A file in its place is an error.
            if (exception.errorCode() != ErrorCode::AlreadyExists || !folderExists(missing.back()))
            {
                throw;
            }
        }
    }
}

ByteStreamPtr IProvider::doOpenTransactionalStream(const StorageIRI& iri) const
{
    return openTransactionalStreamAtScratchLocation(iri, StorageIRI());
}

ByteStreamPtr IProvider::doOpenTransactionalStreamAtScratchLocation(
    const StorageIRI& iri, const StorageIRI& scratchFolder) const
{
    const StorageIRI target = iri.getResolvedIRI();
    const fl::filesystem::path folder = localFolder(scratchFolder);
    try
    {
        return std::make_unique<TransactionalByteStream>(*this, target, folder);
    }
    catch (const std::exception& error) // the temporary file could not be created
    {
        throw Exception(ErrorCode(ErrorCode::Unknown, error.what()), iri);
    }
}

void IProvider::doCopyFileAtomic(
    const StorageIRI& source, const StorageIRI& destination, const ReplacementPolicy& policy) const
{
    if (!supportsReplacementPolicy(policy))
    {
        throw Exception(ErrorCode(ErrorCode::Unsupported, "unknown replacement policy"), destination);
    }
    if (policy == ReplacementPolicy::Fail && fileExists(destination))
    {
        throw Exception(ErrorCode::AlreadyExists, destination);
    }

    const ByteStreamPtr from = openReadOnlyStream(source);
    const ByteStreamPtr to = openTransactionalStream(destination);
    try
    {
        const auto copy = [&]
        {
            copyBytes(*from, *to);
            from->close();
        };
        storeOrAbandon(*to, copy);
    }
    catch (const ByteStreamReadFailure& failure)
    {
        throw Exception(failure.reason(), source);
    }
    catch (const ByteStreamFailure& failure)
    {
        throw Exception(failure.reason(), destination);
    }
}

bool IProvider::doSupportsReplacementPolicy(const ReplacementPolicy& policy) const
{
    return policy == ReplacementPolicy::Fail || policy == ReplacementPolicy::Replace;
}

PathComparator IProvider::doGetPathComparator() const
{
    return [](const StorageIRI& left, const StorageIRI& right) { return left < right; };
}

StorageIRI IProvider::doGetCanonicalLocation(const StorageIRI& iri) const
{
    return iri.getResolvedIRI();
}

FilenameSensitivity IProvider::doGetFilenameSensitivity() const
{
    return FilenameSensitivity::CaseSensitive;
}

void IProvider::doShutdown() const {}

bool IProvider::doExists(const StorageIRI& iri) const
{
    return existsExtended(iri) != ResourceKind::None;
}

ResourceKind IProvider::doExistsExtended(const StorageIRI& iri) const
{
    if (fileExists(iri))
    {
        return ResourceKind::File;
    }
    return folderExists(iri) ? ResourceKind::Folder : ResourceKind::None;
}

ExtendedAttributes IProvider::doGetExtendedAttributes(const StorageIRI& iri) const
{
    switch (const ResourceKind kind = existsExtended(iri))
    {
    case ResourceKind::File:
    {
        const FileAttributes file = getFileAttributes(iri);
        return {kind, file.size(), file.lastModified(), file.isWritable()};
    }
    case ResourceKind::Folder:
    {
        const FolderAttributes folder = getFolderAttributes(iri);
        return {kind, std::nullopt, folder.lastModified(), folder.isWritable()};
    }
    default:
        throw Exception(ErrorCode::NotFound, iri);
    }
}

void IProvider::doTruncateToSize(const StorageIRI& iri, std::uint64_t size) const
{
    try
    {
        // The stream's own end counts: if the file is open elsewhere, it differs from the size of what is stored.
        constexpr auto create = ByteStreamCreate::MustExist;
        constexpr auto position = ByteStreamWritePosition::Append;
        const ByteStreamPtr stream =
            size == 0 ? openToReplace(*this, iri, create, position)
                      : openStream(iri, {ByteStreamReadAccess::None, create, ByteStreamTruncate::Keep, position});
        const auto present = static_cast<std::uint64_t>(std::streamoff(stream->seek(0, std::ios_base::end)));
        if (size < present)
        {
            throw Exception(
                ErrorCode(ErrorCode::Unsupported, "truncating to this size would rewrite the rest of the file"), iri);
        }
        storeOrAbandon(*stream, [&] { appendZeros(*stream, size - present); });
    }
    catch (const ByteStreamFailure& failure)
    {
        throw Exception(failure.reason(), iri);
    }
}

} // namespace foundation::storage::provider
