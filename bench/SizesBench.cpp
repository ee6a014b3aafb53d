// Objects from 1 GiB to 5 TiB: what opening one costs, and what reading and changing a byte of it moves.

#include "VastStore.hpp"

#include <storage/clients/remote/RemoteClient.hpp>
#include <storage/cloudprovider/CloudProvider.hpp>

#include <benchmark/benchmark.h>

#include <malloc.h>

#include <string>

namespace
{

namespace fsp = foundation::storage::provider;
using namespace storage;

constexpr std::uint64_t gibi = 1ULL << 30U;

/// A provider over a VastStore.
struct VastFile
{
    explicit VastFile(std::uint64_t size)
        : client(std::make_shared<clients::RemoteClient>(
              std::make_unique<VastStore>(size, traffic), clients::RemoteSettings()))
        , provider(buildCloudProvider(client, cloudprovider::FolderPolicy::MarkerObjects, false))
    {
    }

    std::shared_ptr<fsp::ByteStream> open() const
    {
        return provider->openStream(
            fsp::StorageIRI(u"vast://store/file"), {.readAccess = fsp::ByteStreamReadAccess::Allowed,
                                                       .truncate = fsp::ByteStreamTruncate::Keep,
                                                       .writePosition = fsp::ByteStreamWritePosition::AtOffset});
    }

    const std::shared_ptr<Traffic> traffic = std::make_shared<Traffic>();
    const std::shared_ptr<clients::RemoteClient> client;
    const std::shared_ptr<cloudprovider::CloudProvider> provider;
};

std::size_t allocated()
{
    const struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

/// Open an object of so many GiB. Counters: its parts, and bytes of memory for each.
void openLarge(benchmark::State& state)
{
    const VastFile file(static_cast<std::uint64_t>(state.range(0)) * gibi);
    std::size_t memory = 0;
    for (auto _ : state)
    {
        const std::size_t before = allocated();
        auto stream = file.open();
        memory = allocated() - before;
        state.PauseTiming();
        stream->close();
        stream.reset();
        state.ResumeTiming();
    }
    const std::size_t parts = file.client->getObjectParts("file").size();
    state.counters["parts"] = static_cast<double>(parts);
    state.counters["MiB"] = static_cast<double>(memory) / (1 << 20);
    state.counters["bytesPerPart"] = static_cast<double>(memory / parts);
}

/// Change a byte in the middle of such an object. Counters: MiB moved in both directions, requests, and copies of them.
void changeByte(benchmark::State& state)
{
    const std::uint64_t size = static_cast<std::uint64_t>(state.range(0)) * gibi;
    const VastFile file(size);
    const auto moved = [&] { return file.traffic->sent + file.traffic->received; };
    for (auto _ : state)
    {
        const std::uint64_t before = moved();
        const std::uint64_t requests = file.traffic->requests;
        const std::uint64_t copies = file.traffic->copies;
        const auto stream = file.open();
        stream->seek(static_cast<std::streamoff>(size / 2 + 1), std::ios_base::beg);
        stream->write("x", 1);
        stream->close();
        state.counters["MiB"] = static_cast<double>(moved() - before) / (1 << 20);
        state.counters["requests"] = static_cast<double>(file.traffic->requests - requests);
        state.counters["copies"] = static_cast<double>(file.traffic->copies - copies);
    }
}

/// Read a byte in the middle.
void readByte(benchmark::State& state)
{
    const std::uint64_t size = static_cast<std::uint64_t>(state.range(0)) * gibi;
    const VastFile file(size);
    const auto stream = file.open();
    for (auto _ : state)
    {
        const std::uint64_t before = file.traffic->received;
        char byte = 'x';
        stream->seek(static_cast<std::streamoff>(size / 2 + 1), std::ios_base::beg);
        stream->read(&byte, 1);
        state.counters["MiB"] = static_cast<double>(file.traffic->received - before) / (1 << 20);
    }
    stream->close();
}

/// Write a file of so many GiB: 1 MiB at the beginning of each GiB, and holes.
void writeHoles(benchmark::State& state)
{
    const std::string data(1 << 20, 'x');
    for (auto _ : state)
    {
        const VastFile file(0);
        const auto stream = file.open();
        for (std::int64_t i = 0; i < state.range(0); ++i)
        {
            stream->seek(static_cast<std::streamoff>(i * static_cast<std::int64_t>(gibi)), std::ios_base::beg);
            stream->write(data.data(), static_cast<std::streamsize>(data.size()));
        }
        stream->close();
        state.counters["GiB"] = static_cast<double>(file.traffic->sent) / static_cast<double>(gibi);
        state.counters["requests"] = static_cast<double>(file.traffic->requests);
    }
}

BENCHMARK(openLarge)->Arg(1)->Arg(40)->Arg(1'024)->Arg(5 * 1'024 - 1)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(readByte)->Arg(1)->Arg(40)->Arg(1'024)->Arg(5 * 1'024 - 1)->Iterations(1)->UseRealTime();
BENCHMARK(changeByte)
    ->Arg(1)
    ->Arg(40)
    ->Arg(1'024)
    ->Arg(5 * 1'024 - 1)
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK(writeHoles)->Arg(20)->Iterations(1)->Unit(benchmark::kSecond)->UseRealTime();

} // namespace
