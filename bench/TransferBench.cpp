// Transferring 256 MiB through the provider's streams, compared with hand-written loops that do only the necessary
// work.
//
// The "ByHand" loops do the same work with the same temporary files: they create one file per part, allocate its disk
// space by a plain write, map it, fill or read it in calls of 64 KiB, map it again for the transfer, and remove it. The
// "BestLoop" loops use one mapped file for all parts: the minimum for a design with local files.

#include "BenchStore.hpp"

#include <benchmark/benchmark.h>
#include <boost/iostreams/device/array.hpp>
#include <boost/iostreams/stream_buffer.hpp>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fcntl.h>
#include <istream>
#include <ostream>
#include <stdexcept>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

namespace
{

namespace fsp = foundation::storage::provider;
using storage::cloudprovider::PartInfo;

constexpr std::size_t partSize = 5 * 1024 * 1024;
constexpr std::size_t fileSize = 256 * 1024 * 1024;
constexpr std::size_t callSize = 64 * 1024;

std::vector<char> callBuffer()
{
    return std::vector<char>(callSize, 'x');
}

void check(bool ok, const char* what)
{
    if (!ok)
    {
        throw std::runtime_error(what);
    }
}

/// The temporary file of one part.
class PartFile
{
public:
    PartFile()
    {
        const char* folder = std::getenv("TMPDIR");
        m_path = std::string(folder != nullptr ? folder : "/tmp") + "/bench-XXXXXX";
        m_descriptor = ::mkstemp(m_path.data());
        check(m_descriptor >= 0 && ::ftruncate(m_descriptor, partSize) == 0, "temporary file");
    }
    PartFile(const PartFile&) = delete;
    PartFile& operator=(const PartFile&) = delete;
    ~PartFile()
    {
        ::close(m_descriptor);
        ::unlink(m_path.c_str());
    }

    void back()
    {
        static const std::vector<char> zeros(partSize);
        check(::pwrite(m_descriptor, zeros.data(), partSize, 0) == static_cast<ssize_t>(partSize), "backing");
    }

    char* map()
    {
        void* address = ::mmap(nullptr, partSize, PROT_READ | PROT_WRITE, MAP_SHARED, m_descriptor, 0);
        check(address != MAP_FAILED, "mapping");
        return static_cast<char*>(address);
    }

    static void unmap(char* address) { ::munmap(address, partSize); }

private:
    std::string m_path;
    int m_descriptor;
};

PartInfo partAt(std::size_t offset)
{
    return {offset / partSize, offset, std::min(partSize, fileSize - offset), ""};
}

void fill(char* target, std::size_t size, const std::vector<char>& from)
{
    for (std::size_t done = 0; done < size; done += callSize)
    {
        std::memcpy(target + done, from.data(), std::min(callSize, size - done));
        benchmark::ClobberMemory();
    }
}

void empty(const char* source, std::size_t size, std::vector<char>& into)
{
    for (std::size_t done = 0; done < size; done += callSize)
    {
        std::memcpy(into.data(), source + done, std::min(callSize, size - done));
        benchmark::ClobberMemory();
    }
}

void send(BenchStore& store, const std::string& upload, PartInfo& part, const char* bytes)
{
    boost::iostreams::stream_buffer<boost::iostreams::basic_array_source<char>> memory(bytes, part.Size);
    std::istream content(&memory);
    part.Tag = store.client->uploadPart("file", upload, part, content);
}

void fetch(BenchStore& store, const PartInfo& part, char* bytes)
{
    boost::iostreams::stream_buffer<boost::iostreams::basic_array<char>> memory(bytes, part.Size);
    std::ostream out(&memory);
    store.client->getObjectRange("file", out, part.Offset, part.Offset + part.Size - 1);
}

void writeThroughProvider(BenchStore& store)
{
    const std::vector<char> bytes = callBuffer();
    const fsp::ByteStreamPtr stream = store.provider->openStream(
        BenchStore::iri("file"), {fsp::ByteStreamReadAccess::None, fsp::ByteStreamCreate::IfMissing,
                                     fsp::ByteStreamTruncate::Discard, fsp::ByteStreamWritePosition::AtOffset});
    for (std::size_t done = 0; done < fileSize; done += callSize)
    {
        stream->write(bytes.data(), callSize);
    }
    stream->close();
}

void writeByHand(BenchStore& store)
{
    const std::vector<char> bytes = callBuffer();
    const std::string upload = store.client->createMultipartUpload("file", "");
    std::vector<PartInfo> parts;
    std::vector<std::unique_ptr<PartFile>> files; // kept to the end, as the provider keeps written parts
    for (std::size_t offset = 0; offset < fileSize; offset += partSize)
    {
        PartInfo part = partAt(offset);
        files.push_back(std::make_unique<PartFile>());
        PartFile& file = *files.back();
        file.back();
        char* address = file.map();
        fill(address, part.Size, bytes);
        PartFile::unmap(address);
        address = file.map();
        send(store, upload, part, address);
        PartFile::unmap(address);
        parts.push_back(std::move(part));
    }
    store.client->completeMultipartUpload("file", upload, parts);
}

void writeBestLoop(BenchStore& store)
{
    const std::vector<char> bytes = callBuffer();
    const std::string upload = store.client->createMultipartUpload("file", "");
    std::vector<PartInfo> parts;
    PartFile file;
    file.back();
    char* address = file.map();
    for (std::size_t offset = 0; offset < fileSize; offset += partSize)
    {
        PartInfo part = partAt(offset);
        fill(address, part.Size, bytes);
        send(store, upload, part, address);
        parts.push_back(std::move(part));
    }
    PartFile::unmap(address);
    store.client->completeMultipartUpload("file", upload, parts);
}

void readThroughProvider(BenchStore& store)
{
    std::vector<char> bytes = callBuffer();
    const fsp::ByteStreamPtr stream = store.provider->openReadOnlyStream(BenchStore::iri("file"));
    std::size_t total = 0;
    for (std::streamsize count = 0; (count = stream->read(bytes.data(), callSize)) > 0;)
    {
        total += static_cast<std::size_t>(count);
    }
    check(total == fileSize, "short read");
    stream->close();
}

void readByHand(BenchStore& store)
{
    std::vector<char> bytes = callBuffer();
    std::deque<std::unique_ptr<PartFile>> files; // as many as the provider caches
    for (const PartInfo& part : store.client->getObjectParts("file"))
    {
        files.push_back(std::make_unique<PartFile>());
        PartFile& file = *files.back();
        file.back();
        char* address = file.map();
        fetch(store, part, address);
        empty(address, part.Size, bytes);
        PartFile::unmap(address);
        if (files.size() > 20)
        {
            files.pop_front();
        }
    }
}

void readBestLoop(BenchStore& store)
{
    std::vector<char> bytes = callBuffer();
    PartFile file;
    file.back();
    char* address = file.map();
    for (const PartInfo& part : store.client->getObjectParts("file"))
    {
        fetch(store, part, address);
        empty(address, part.Size, bytes);
    }
    PartFile::unmap(address);
}

void transfer(benchmark::State& state, void (*run)(BenchStore&))
{
    BenchStore store;
    writeBestLoop(store);
    for (auto _ : state)
    {
        run(store);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * static_cast<std::int64_t>(fileSize));
}

BENCHMARK_CAPTURE(transfer, WriteProvider, writeThroughProvider)
    ->Unit(benchmark::kMillisecond)
    ->MinWarmUpTime(1)
    ->UseRealTime();
BENCHMARK_CAPTURE(transfer, WriteByHand, writeByHand)->Unit(benchmark::kMillisecond)->MinWarmUpTime(1)->UseRealTime();
BENCHMARK_CAPTURE(transfer, WriteBestLoop, writeBestLoop)
    ->Unit(benchmark::kMillisecond)
    ->MinWarmUpTime(1)
    ->UseRealTime();
BENCHMARK_CAPTURE(transfer, ReadProvider, readThroughProvider)
    ->Unit(benchmark::kMillisecond)
    ->MinWarmUpTime(1)
    ->UseRealTime();
BENCHMARK_CAPTURE(transfer, ReadByHand, readByHand)->Unit(benchmark::kMillisecond)->MinWarmUpTime(1)->UseRealTime();
BENCHMARK_CAPTURE(transfer, ReadBestLoop, readBestLoop)->Unit(benchmark::kMillisecond)->MinWarmUpTime(1)->UseRealTime();

} // namespace
