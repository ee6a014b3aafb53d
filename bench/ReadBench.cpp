// Small reads inside an open part, compared with a memcpy of the same bytes.

#include "BenchStore.hpp"

#include <benchmark/benchmark.h>

#include <array>
#include <cstring>
#include <string>
#include <vector>

namespace
{

constexpr std::size_t partSize = 5 * 1024 * 1024;
constexpr std::size_t readSize = 4096;

void smallReadProvider(benchmark::State& state)
{
    BenchStore store;
    store.client->put("file", std::string(partSize, 'x'));
    const auto stream = store.provider->openReadOnlyStream(BenchStore::iri("file"));
    std::array<char, readSize> bytes{};
    std::size_t position = 0;
    for (auto _ : state)
    {
        if (stream->read(bytes.data(), readSize) != static_cast<std::streamsize>(readSize))
        {
            state.SkipWithError("short read");
            break;
        }
        benchmark::DoNotOptimize(bytes.data());
        benchmark::ClobberMemory();
        position += readSize;
        if (position == partSize)
        {
            position = 0;
            stream->seek(0, std::ios_base::beg);
        }
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * static_cast<std::int64_t>(readSize));
}

void smallReadMemcpy(benchmark::State& state)
{
    const std::vector<char> part(partSize, 'x');
    std::array<char, readSize> bytes{};
    std::size_t position = 0;
    for (auto _ : state)
    {
        std::memcpy(bytes.data(), part.data() + position, readSize);
        benchmark::DoNotOptimize(bytes.data());
        benchmark::ClobberMemory();
        position += readSize;
        if (position == partSize)
        {
            position = 0;
        }
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * static_cast<std::int64_t>(readSize));
}

BENCHMARK(smallReadProvider);
BENCHMARK(smallReadMemcpy);

} // namespace
