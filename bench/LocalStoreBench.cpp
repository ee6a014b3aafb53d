// The local store compared with plain SQLite inserts and plain files of the same durability.
//
// All files are below $TMPDIR, so that both sides use one disk.

#include <storage/clients/local/LocalClient.hpp>

#include <benchmark/benchmark.h>
#include <fmt/format.h>
#include <sqlite3.h>

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <istream>
#include <map>
#include <memory>
#include <ostream>
#include <random>
#include <sstream>
#include <stdexcept>
#include <streambuf>
#include <string>
#include <unistd.h>
#include <vector>

namespace
{

using storage::clients::LocalClient;
using storage::cloudprovider::ListOptions;
using storage::cloudprovider::PartInfo;

constexpr std::size_t smallSize = 4096;
constexpr std::size_t largeSize = 256 * 1024 * 1024;
constexpr std::size_t partSize = 5 * 1024 * 1024;

void check(bool ok, const char* what)
{
    if (!ok)
    {
        throw std::runtime_error(what);
    }
}

/// A temporary folder, removed by the destructor.
class ScratchFolder
{
public:
    ScratchFolder()
    {
        std::string path = (std::filesystem::temp_directory_path() / "bench-XXXXXX").string();
        check(::mkdtemp(path.data()) != nullptr, "temporary folder");
        m_path = path;
    }
    ScratchFolder(const ScratchFolder&) = delete;
    ScratchFolder& operator=(const ScratchFolder&) = delete;
    ~ScratchFolder()
    {
        std::error_code ignored; // the folder is temporary
        std::filesystem::remove_all(m_path, ignored);
    }

    const std::filesystem::path& path() const { return m_path; }

private:
    std::filesystem::path m_path;
};

/// A stream buffer over existing bytes, which are not copied.
class Bytes : public std::streambuf
{
public:
    Bytes(char* bytes, std::size_t size)
    {
        setg(bytes, bytes, bytes + size);
        setp(bytes, bytes + size);
    }
};

std::vector<char>& largeContent()
{
    static std::vector<char> content(largeSize, 'x');
    return content;
}

void putLarge(LocalClient& client)
{
    const std::string upload = client.createMultipartUpload("large", "");
    std::vector<PartInfo> parts;
    for (std::size_t offset = 0; offset < largeSize; offset += partSize)
    {
        PartInfo part{offset / partSize, offset, std::min(partSize, largeSize - offset), ""};
        Bytes bytes(largeContent().data() + offset, part.Size);
        std::istream content(&bytes);
        part.Tag = client.uploadPart("large", upload, part, content);
        parts.push_back(std::move(part));
    }
    client.completeMultipartUpload("large", upload, parts);
}

void putSmallLocal(benchmark::State& state)
{
    const ScratchFolder folder;
    LocalClient client(folder.path() / "store");
    std::string content(smallSize, 'x');
    std::size_t number = 0;
    for (auto _ : state)
    {
        Bytes bytes(content.data(), content.size());
        std::istream stream(&bytes);
        client.putObject(fmt::format("small/{:08}", number++), stream, content.size());
    }
    state.SetItemsProcessed(state.iterations());
}

// Several threads with one client.
void putSmallShared(benchmark::State& state)
{
    static std::unique_ptr<ScratchFolder> folder;
    static std::unique_ptr<LocalClient> client;
    if (state.thread_index() == 0)
    {
        folder = std::make_unique<ScratchFolder>();
        client = std::make_unique<LocalClient>(folder->path() / "store");
    }
    std::string content(smallSize, 'x');
    std::size_t number = 0;
    for (auto _ : state) // begins when all threads are here, and ends when all have left
    {
        Bytes bytes(content.data(), content.size());
        std::istream stream(&bytes);
        client->putObject(fmt::format("small/{}/{:08}", state.thread_index(), number++), stream, content.size());
    }
    if (state.thread_index() == 0)
    {
        client.reset();
        folder.reset();
    }
    state.SetItemsProcessed(state.iterations());
}

void putSmallSqlite(benchmark::State& state)
{
    const ScratchFolder folder;
    sqlite3* database = nullptr;
    check(sqlite3_open((folder.path() / "plain.db").c_str(), &database) == SQLITE_OK, "opening");
    check(sqlite3_exec(database,
              "PRAGMA journal_mode=WAL; PRAGMA synchronous=FULL;"
              "CREATE TABLE objects(key TEXT PRIMARY KEY, content BLOB) WITHOUT ROWID",
              nullptr, nullptr, nullptr) == SQLITE_OK,
        "schema");
    sqlite3_stmt* insert = nullptr;
    check(sqlite3_prepare_v2(database, "INSERT INTO objects VALUES(?1, ?2)", -1, &insert, nullptr) == SQLITE_OK,
        "preparing");
    const std::string content(smallSize, 'x');
    std::size_t number = 0;
    for (auto _ : state)
    {
        const std::string key = fmt::format("small/{:08}", number++);
        sqlite3_bind_text(insert, 1, key.data(), static_cast<int>(key.size()), SQLITE_STATIC);
        sqlite3_bind_blob(insert, 2, content.data(), static_cast<int>(content.size()), SQLITE_STATIC);
        check(sqlite3_step(insert) == SQLITE_DONE, "inserting");
        sqlite3_reset(insert);
    }
    sqlite3_finalize(insert);
    sqlite3_close(database);
    state.SetItemsProcessed(state.iterations());
}

void largeInLocal(benchmark::State& state)
{
    const ScratchFolder folder;
    LocalClient client(folder.path() / "store");
    largeContent();
    for (auto _ : state)
    {
        putLarge(client);
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(largeSize));
}

/// Write the content in calls of 128 KiB, as `cp` does, and sync the file and its folder.
void largeInFile(benchmark::State& state)
{
    const ScratchFolder folder;
    const std::string path = folder.path() / "large";
    constexpr std::size_t callSize = 128 * 1024;
    for (auto _ : state)
    {
        const int file = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        for (std::size_t done = 0; done < largeSize; done += callSize)
        {
            check(::write(file, largeContent().data() + done, callSize) == static_cast<ssize_t>(callSize), "writing");
        }
        check(::fsync(file) == 0, "syncing");
        ::close(file);
        const int directory = ::open(folder.path().c_str(), O_RDONLY | O_DIRECTORY);
        check(::fsync(directory) == 0, "syncing the folder");
        ::close(directory);
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(largeSize));
}

void largeOutLocal(benchmark::State& state)
{
    const ScratchFolder folder;
    LocalClient client(folder.path() / "store");
    putLarge(client);
    std::vector<char>& target = largeContent();
    for (auto _ : state)
    {
        Bytes bytes(target.data(), target.size());
        std::ostream out(&bytes);
        client.getObjectRange("large", out, 0, 0);
        check(out.good(), "reading");
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(largeSize));
}

void largeOutFile(benchmark::State& state)
{
    const ScratchFolder folder;
    const std::string path = folder.path() / "large";
    std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "w+"), &std::fclose);
    check(std::fwrite(largeContent().data(), 1, largeSize, file.get()) == largeSize, "writing");
    check(std::fflush(file.get()) == 0, "flushing");
    constexpr std::size_t callSize = 128 * 1024;
    for (auto _ : state)
    {
        for (std::size_t done = 0; done < largeSize; done += callSize)
        {
            check(::pread(::fileno(file.get()), largeContent().data() + done, callSize, static_cast<off_t>(done)) ==
                      static_cast<ssize_t>(callSize),
                "reading");
        }
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(largeSize));
}

void listAboveMillion(benchmark::State& state)
{
    const ScratchFolder folder;
    LocalClient client(folder.path() / "store");
    const auto keys = static_cast<int>(state.range(0));
    for (int i = 0; i < keys; ++i)
    {
        std::istringstream nothing;
        client.putObject(fmt::format("top/{:04}/{:06}", i % 1000, i / 1000), nothing, 0);
    }
    for (auto _ : state)
    {
        std::string token;
        std::size_t entries = 0;
        do
        {
            entries += client.listObjects("top/", token, ListOptions{"/", -1}).size();
        } while (!token.empty());
        check(entries == 1000, "a listing of other than 1,000 groups");
    }
    state.SetItemsProcessed(state.iterations() * 1000);
}

/// A store with that many small inline objects in 1,000 groups. It stays until the program ends, because it takes a
/// minute to make ten million of them: with statements on the index, in the order of the keys.
class FilledStore
{
public:
    static FilledStore& withKeys(const benchmark::State& state)
    {
        static std::map<std::uint64_t, FilledStore> stores;
        const auto keys = static_cast<std::uint64_t>(state.range(0));
        return stores.try_emplace(keys, keys).first->second;
    }

    explicit FilledStore(std::uint64_t keys)
        : m_perGroup(keys / groups)
    {
        const LocalClient created(path());
        sqlite3* index = nullptr;
        check(sqlite3_open_v2((path() / "index.sqlite").c_str(), &index, SQLITE_OPEN_READWRITE,
                  "cloudprovider-checked") == SQLITE_OK,
            "opening the index");
        const auto run = [&](const std::string& sql)
        { check(sqlite3_exec(index, sql.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK, "filling the index"); };
        run("PRAGMA cache_spill = OFF; PRAGMA synchronous = OFF; CREATE TEMP TABLE n AS WITH RECURSIVE c(i) AS "
            "(SELECT 0 UNION ALL SELECT i + 1 FROM c WHERE i + 1 < " +
            std::to_string(m_perGroup) + ") SELECT i FROM c");
        for (std::uint64_t group = 0; group < groups; ++group)
        {
            const std::string id =
                fmt::format("2 * ({} + i)", group * m_perGroup); // of the object; its content is next
            run(fmt::format("BEGIN; INSERT INTO objects SELECT CAST(format('top/%04d/%06d', {0}, i) AS BLOB), {1}, 16, "
                            "0 FROM n; INSERT INTO object_parts SELECT {1}, 0, {1} + 1 FROM n; INSERT INTO contents "
                            "(id, refs, size, data) SELECT {1} + 1, 1, 16, zeroblob(16) FROM n; COMMIT",
                group, id));
        }
        run(fmt::format("UPDATE store SET next_id = {}; PRAGMA wal_checkpoint(TRUNCATE)", 2 * keys));
        sqlite3_close(index);
    }

    std::filesystem::path path() const { return m_folder.path() / "store"; }

    std::string randomGroup() { return fmt::format("top/{:04}/", m_random() % groups); }
    std::string randomKey() { return randomGroup() + fmt::format("{:06}", m_random() % m_perGroup); }

private:
    static constexpr std::uint64_t groups = 1000;

    const ScratchFolder m_folder;
    const std::uint64_t m_perGroup;
    std::mt19937_64 m_random{1};
};

void openAmong(benchmark::State& state)
{
    FilledStore& store = FilledStore::withKeys(state);
    for (auto _ : state)
    {
        LocalClient client(store.path());
        check(client.getObjectInfo(store.randomKey()).exists, "finding a key");
    }
}

void findAmong(benchmark::State& state)
{
    FilledStore& store = FilledStore::withKeys(state);
    LocalClient client(store.path());
    for (auto _ : state)
    {
        check(client.getObjectInfo(store.randomKey()).exists, "finding a key");
    }
}

void readAmong(benchmark::State& state)
{
    FilledStore& store = FilledStore::withKeys(state);
    LocalClient client(store.path());
    for (auto _ : state)
    {
        std::ostringstream out;
        client.getObjectRange(store.randomKey(), out, 0, 0);
        check(out.good(), "reading");
    }
}

// Ten entries of a random group.
void listAmong(benchmark::State& state)
{
    FilledStore& store = FilledStore::withKeys(state);
    LocalClient client(store.path());
    for (auto _ : state)
    {
        std::string token;
        check(client.listObjects(store.randomGroup(), token, ListOptions{"/", 10}).size() == 10, "listing");
    }
}

// New objects of 4 KiB between the others.
void putAmong(benchmark::State& state)
{
    FilledStore& store = FilledStore::withKeys(state);
    LocalClient client(store.path());
    static std::size_t number = 0; // makes the key new
    std::string content(smallSize, 'x');
    for (auto _ : state)
    {
        Bytes bytes(content.data(), content.size());
        std::istream stream(&bytes);
        client.putObject(store.randomKey() + std::to_string(number++), stream, content.size());
    }
}

BENCHMARK(putSmallLocal)->UseRealTime();
BENCHMARK(putSmallShared)->Threads(1)->Threads(4)->Threads(8)->UseRealTime();
BENCHMARK(putSmallSqlite)->UseRealTime();
BENCHMARK(largeInLocal)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);
BENCHMARK(largeInFile)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);
BENCHMARK(largeOutLocal)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(largeOutFile)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(listAboveMillion)->Arg(10'000)->Arg(1'000'000)->Unit(benchmark::kMillisecond)->UseRealTime();

// In this order, because a put adds keys.
BENCHMARK(openAmong)->Arg(10'000)->Arg(10'000'000)->UseRealTime();
BENCHMARK(findAmong)->Arg(10'000)->Arg(10'000'000)->UseRealTime();
BENCHMARK(readAmong)->Arg(10'000)->Arg(10'000'000)->UseRealTime();
BENCHMARK(listAmong)->Arg(10'000)->Arg(10'000'000)->UseRealTime();
BENCHMARK(putAmong)->Arg(10'000)->Arg(10'000'000)->UseRealTime();

} // namespace
