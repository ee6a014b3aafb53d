#include "Transfer.hpp"

#include "CommandError.hpp"
#include "Interrupt.hpp"

#include <storage/clients/cache/CachingClient.hpp>
#include <storage/clients/common/ObjectDownloader.hpp>
#include <storage/clients/common/ObjectUploader.hpp>
#include <storage/clients/decorators/FindInterface.hpp>

#include <foundation/storage/provider/ByteStream.hpp>

#include <fmt/format.h>

#include <ios>
#include <memory>
#include <string_view>

namespace cloudfs
{

namespace
{

constexpr std::size_t blockSize = std::size_t{1024} * 1024; // large enough that the cost of the calls does not matter

void writeAll(fsp::ByteStream& stream, const StorePath& path, const char* data, std::size_t size)
{
    while (size > 0)
    {
        const std::streamsize written = stream.write(data, static_cast<std::streamsize>(size));
        if (written <= 0)
        {
            throw CommandError(path.text(), "the stream accepts no more bytes", fsp::ErrorCode::Unknown);
        }
        data += written;
        size -= static_cast<std::size_t>(written);
    }
}

/// @return null if the store has none, or a cache: streams read what is there, and keep the rest
storage::clients::ObjectDownloader* findDownloader(const CommandContext& context)
{
    auto& store = context.store();
    return storage::clients::findInterface<storage::clients::CachingClient>(store) == nullptr
               ? storage::clients::findInterface<storage::clients::ObjectDownloader>(store)
               : nullptr;
}

} // namespace

void upload(const CommandContext& context, const StorePath& path, const fsp::ByteStreamOpenOptions& options,
    std::uint64_t offset, LocalSource& source, Progress& progress)
{
    auto stream = context.translateErrors(path, [&] { return context.provider().openStream(path.iri(), options); });
    try
    {
        context.translateErrors(path,
            [&]
            {
                stream->seek(static_cast<fsp::stream_offset>(offset), std::ios_base::beg);
                const auto block = std::make_unique_for_overwrite<char[]>(blockSize);
                while (const std::size_t size = source.read(block.get(), blockSize))
                {
                    writeAll(*stream, path, block.get(), size);
                    progress.advance(size);
                }
            });
        interrupt::throwIfPending();
    }
    catch (...)
    {
        // Closing the stream commits the file, and its destructor closes it: forbid the commit first.
        const auto cancelled = context.client().cancel(path.key());
        stream.reset();
        throw;
    }
    context.translateErrors(path, [&] { stream->close(); });
    context.requireCommitted(path);
}

void upload(const CommandContext& context, const StorePath& path, LocalSource& source, Progress& progress)
{
    auto* const uploader = storage::clients::findInterface<storage::clients::ObjectUploader>(context.store());
    if (uploader == nullptr)
    {
        upload(context, path, wholeFile, 0, source, progress);
        return;
    }
    if (!source.hasStatedSize())
    {
        const auto readNext = [&](char* target, std::size_t size)
        {
            interrupt::throwIfPending();
            const std::size_t count = source.read(target, size);
            progress.advance(count);
            return count;
        };
        context.translateErrors(path, [&] { uploader->uploadStream(path.key(), readNext); });
        return;
    }
    const auto read = [&](std::uint64_t offset, char* target, std::size_t size)
    {
        interrupt::throwIfPending();
        source.readAt(offset, target, size);
    };
    const auto check = [&]
    {
        interrupt::throwIfPending();
        source.requireUnchanged();
    };
    const auto sent = [&](std::uint64_t bytes) { progress.advance(bytes); };
    context.translateErrors(path, [&] { uploader->uploadObject(path.key(), {*source.size(), read, check, sent}); });
}

void download(
    const CommandContext& context, const StorePath& path, const TakeSize& begin, const Write& write, Progress& progress)
{
    if (auto* const downloader = findDownloader(context))
    {
        const auto writeNext = [&](std::uint64_t, std::string_view bytes)
        {
            interrupt::throwIfPending();
            write(bytes.data(), bytes.size());
            progress.advance(bytes.size());
        };
        context.translateErrors(path, [&] { downloader->downloadObject(path.key(), {begin, writeNext, true}); });
        return;
    }
    context.translateErrors(path,
        [&]
        {
            const auto stream = context.provider().openReadOnlyStream(path.iri());
            // The stream's size, not the store's: the file may have been replaced since it was opened.
            const std::streamoff size = stream->seek(0, std::ios_base::end);
            stream->seek(0, std::ios_base::beg);
            begin(static_cast<std::uint64_t>(size));
            const auto block = std::make_unique_for_overwrite<char[]>(blockSize);
            std::streamoff done = 0;
            while (done < size)
            {
                interrupt::throwIfPending();
                const std::streamsize count = stream->read(block.get(), blockSize);
                if (count <= 0)
                {
                    throw CommandError(
                        path.text(), fmt::format("ended after {} of {} bytes", done, size), fsp::ErrorCode::Unknown);
                }
                write(block.get(), static_cast<std::size_t>(count));
                progress.advance(static_cast<std::uint64_t>(count));
                done += count;
            }
            stream->close();
        });
}

void download(const CommandContext& context, const StorePath& path, const TakeSize& begin, LocalTarget& target,
    Progress& progress)
{
    auto* const downloader = target.isRegularFile() ? findDownloader(context) : nullptr;
    if (downloader == nullptr)
    {
        download(
            context, path, begin, [&](const char* data, std::size_t size) { target.write(data, size); }, progress);
    }
    else
    {
        const auto write = [&](std::uint64_t offset, std::string_view bytes)
        {
            target.writeAt(offset, bytes);
            progress.advance(bytes.size());
        };
        context.translateErrors(path, [&] { downloader->downloadObject(path.key(), {begin, write}); });
    }
    target.commit();
}

} // namespace cloudfs
