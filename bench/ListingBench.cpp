// Listing a million keys, and the memory that the listing needs in addition to the store's.

#include "BenchStore.hpp"

#include <benchmark/benchmark.h>
#include <fmt/format.h>

#include <fstream>
#include <string>

namespace
{

namespace fsp = foundation::storage::provider;

constexpr int keyCount = 1'000'000;
constexpr int keysPerFolder = 1000;

BenchStore& millionKeys()
{
    static BenchStore store = []
    {
        BenchStore filled;
        for (int i = 0; i < keyCount; ++i)
        {
            filled.client->put(fmt::format("flat/{:07}", i), "");
            filled.client->put(fmt::format("deep/{:04}/{:03}", i / keysPerFolder, i % keysPerFolder), "");
        }
        return filled;
    }();
    return store;
}

/// Return the process's resident memory in KiB: the peak since the last reset ("VmHWM") or the current value ("VmRSS").
double residentKiB(const std::string& field)
{
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
    {
        if (line.starts_with(field + ":"))
        {
            return std::stod(line.substr(field.size() + 1));
        }
    }
    return 0;
}

void list(benchmark::State& state, const char* folder,
    fsp::FolderEntryIteratorPtr (fsp::IProvider::*listing)(const fsp::StorageIRI&) const)
{
    BenchStore& store = millionKeys();
    std::int64_t entries = 0;
    double growth = 0;
    for (auto _ : state)
    {
        std::ofstream("/proc/self/clear_refs") << "5"; // reset the peak
        const double before = residentKiB("VmRSS");
        const auto iterator = ((*store.provider).*listing)(BenchStore::iri(folder));
        while (iterator->hasNext())
        {
            iterator->next();
            benchmark::DoNotOptimize(iterator->getCurrent());
            ++entries;
        }
        growth = std::max(growth, residentKiB("VmHWM") - before);
    }
    state.SetItemsProcessed(entries);
    state.counters["peak_growth_KiB"] = growth;
    state.counters["entries"] = static_cast<double>(entries) / static_cast<double>(state.iterations());
}

BENCHMARK_CAPTURE(list, FlatMillionFiles, "flat/", &fsp::IProvider::listAll)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(list, RecursiveMillionFiles, "flat/", &fsp::IProvider::listAllRecursive)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(list, RecursiveThousandFolders, "deep/", &fsp::IProvider::listAllRecursive)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(list, FlatThousandFoldersOverMillion, "deep/", &fsp::IProvider::listAll)
    ->Unit(benchmark::kMillisecond);

} // namespace
