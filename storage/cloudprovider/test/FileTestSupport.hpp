#pragma once

#include "OpenFileContext.hpp"

#include <storage/clients/decorators/FaultyClient.hpp>
#include <storage/clients/decorators/FindInterface.hpp>
#include <storage/clients/memory/MemoryClient.hpp>
#include <storage/cloudprovider/CloudProvider.hpp>
#include <storage/cloudprovider/DiskBackedBufferFactory.hpp>
#include <storage/cloudprovider/Logger.hpp>

#include <foundation/storage/provider/ByteStreamFailure.hpp>
#include <foundation/storage/provider/Exception.hpp>

#include <boost/filesystem/operations.hpp>
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

// What the tests that work on whole files and trees share.

namespace storage::cloudprovider
{

namespace fsp = foundation::storage::provider;

/// How a test opens a file that it writes to.
constexpr fsp::ByteStreamOpenOptions editing{fsp::ByteStreamReadAccess::Allowed, fsp::ByteStreamCreate::IfMissing,
    fsp::ByteStreamTruncate::Keep, fsp::ByteStreamWritePosition::AtOffset};
constexpr fsp::ByteStreamOpenOptions appending{fsp::ByteStreamReadAccess::None, fsp::ByteStreamCreate::IfMissing,
    fsp::ByteStreamTruncate::Keep, fsp::ByteStreamWritePosition::Append};

inline fsp::StorageIRI iriOf(const std::string& key)
{
    return fsp::StorageIRI::fromUtf8("mem://test/" + key);
}

/// Write with a count as the framework has it.
inline std::streamsize write(fsp::ByteStream& stream, const std::string& bytes)
{
    return stream.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

/// Bytes that tell where they come from: none is zero, and neighbours differ.
inline std::string numberedBytes(std::size_t size, std::size_t first = 0)
{
    std::string bytes;
    for (std::size_t i = first; i < first + size; ++i)
    {
        bytes.push_back(static_cast<char>(1 + i * 7 % 250));
    }
    return bytes;
}

constexpr int succeeds = -1; // in the place of a framework code

/// The framework code that the operation fails with.
/// @param detail  gets the explanation, when there is one
template <typename Operation>
int codeOf(Operation operation, std::string* detail = nullptr)
{
    const auto take = [&](const fsp::ErrorCode& code)
    {
        if (detail != nullptr)
        {
            *detail = code.detail().value_or("");
        }
        return code.value();
    };
    try
    {
        operation();
        return succeeds;
    }
    catch (const fsp::Exception& failure)
    {
        return take(failure.errorCode());
    }
    catch (const fsp::ByteStreamFailure& failure)
    {
        return take(failure.reason());
    }
}

/// Random numbers that are the same with every standard library.
class Random
{
public:
    /// @param row  the seed; or 0: MODEL_SEED from the environment, or else a seed that nobody has tried
    explicit Random(unsigned row)
        : seed(row != 0                    ? row
               : std::getenv("MODEL_SEED") ? static_cast<unsigned>(std::atoi(std::getenv("MODEL_SEED")))
                                           : std::random_device{}())
        , m_engine(seed)
    {
    }

    std::size_t below(std::size_t limit) { return m_engine() % limit; }
    std::size_t between(std::size_t least, std::size_t most) { return least + below(most - least + 1); }
    bool oneIn(std::size_t count) { return below(count) == 0; }
    std::string bytes(std::size_t size) { return numberedBytes(size, below(250)); }

    const unsigned seed;

private:
    std::mt19937 m_engine;
};

inline std::string seedName(unsigned row)
{
    return row == 0 ? "random" : "seed" + std::to_string(row);
}

/// A directory of the test's own. In memory where there is such a place: the tests make very many small files.
class PrivateFolder
{
public:
    PrivateFolder()
        : m_path((boost::filesystem::is_directory("/dev/shm") ? "/dev/shm" : boost::filesystem::temp_directory_path()) /
                 boost::filesystem::unique_path("files-%%%%%%%%"))
    {
        boost::filesystem::create_directory(m_path);
    }
    PrivateFolder(const PrivateFolder&) = delete;
    PrivateFolder& operator=(const PrivateFolder&) = delete;
    ~PrivateFolder()
    {
        boost::system::error_code ignored; // a folder that stays is the system's to sweep
        boost::filesystem::remove_all(m_path, ignored);
    }

    const char* path() const { return m_path.c_str(); }
    bool isEmpty() const { return boost::filesystem::is_empty(m_path); }

private:
    const boost::filesystem::path m_path;
};

/// The directory for temporary files while it lives, so that what is left in it was left by the test.
class PrivateTempFolder : public PrivateFolder
{
public:
    PrivateTempFolder() { setenv("TMPDIR", path(), 1); }
    ~PrivateTempFolder() { setenv("TMPDIR", m_outer.c_str(), 1); }

private:
    const boost::filesystem::path m_outer = boost::filesystem::temp_directory_path();
};

/// Ends the process when a test does not end, and names who has not finished.
class Watchdog
{
public:
    explicit Watchdog(const std::string& test)
        : m_running{test}
        , m_thread([this] { watch(); })
    {
    }
    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;
    ~Watchdog()
    {
        setRunning({}, true);
        m_thread.join();
    }

    /// Say who runs, or no longer does; an empty name says that the test is over.
    void setRunning(const std::string& actor, bool running)
    {
        const std::lock_guard lock(m_mutex);
        running ? m_running.insert(actor) : m_running.erase(m_running.find(actor));
        m_changed.notify_all();
    }

private:
    void watch()
    {
        std::unique_lock lock(m_mutex);
        if (!m_changed.wait_for(lock, std::chrono::seconds(60), [this] { return m_running.contains(""); }))
        {
            std::cerr << "hangs after 60 s, not finished: " << testing::PrintToString(m_running) << std::endl;
            std::abort();
        }
    }

    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::multiset<std::string> m_running; // guarded by m_mutex
    std::thread m_thread;                 // last: it uses the others
};

/// A provider over a store in memory.
/// @tparam Faults  the FaultyClient, or one derived from it, that the provider uses the store through
template <typename Faults>
class StoreFixture : public testing::Test
{
protected:
    /// @param other  the store to use in place of `store`; null: none
    explicit StoreFixture(clients::MemoryClient::Clock clock = {}, const CloudClientSharedPtr& other = nullptr)
        : store(std::make_shared<clients::MemoryClient>(std::move(clock)))
        , faults(std::make_shared<Faults>(other ? other : store))
    {
        unsetenv(partSizeVariable);
        unsetenv(cacheVariable);
    }

    ~StoreFixture() override { getLogger().setEnabledSeverities(m_severities); }

    static constexpr const char* partSizeVariable = "ZV_CLOUD_PART_SIZE_OVERRIDE";
    static constexpr const char* cacheVariable = "ZV_CLOUD_DOWNLOADED_PART_CACHE_OVERRIDE";

    /// Choose the sizes of files that are opened from now on. Call while no other thread runs.
    static void setSizes(std::size_t part, std::size_t cache)
    {
        setenv(partSizeVariable, std::to_string(part).c_str(), 1);
        setenv(cacheVariable, std::to_string(cache).c_str(), 1);
    }

    /// Store an object in parts of the given sizes, without the provider.
    void putParts(const std::string& key, const std::string& content, const std::vector<std::size_t>& sizes)
    {
        CloudClient& client = faults->inner();
        const std::string upload = client.createMultipartUpload(key, "");
        std::vector<PartInfo> parts;
        for (std::size_t offset = 0; const std::size_t size : sizes)
        {
            std::istringstream bytes(content.substr(offset, size));
            parts.push_back({parts.size(), offset, size, ""});
            parts.back().Tag = client.uploadPart(key, upload, parts.back(), bytes);
            offset += size;
        }
        client.completeMultipartUpload(key, upload, parts);
    }

    /// The sizes of the parts of a stored object, which must follow each other.
    std::vector<std::size_t> partSizes(const std::string& key) const
    {
        std::vector<std::size_t> sizes;
        for (std::size_t offset = 0; const PartInfo& part : faults->inner().getObjectParts(key))
        {
            EXPECT_TRUE(part.Index == sizes.size() && part.Offset == offset) << key << ": " << part;
            offset += part.Size;
            sizes.push_back(part.Size);
        }
        if (sizes.empty()) // means one part, and an object without bytes may have it
        {
            sizes.push_back(0);
        }
        return sizes;
    }

    OpenFileContextSharedPtr contextOf(const std::string& key,
        std::unique_ptr<BufferFactory> buffers = std::make_unique<DiskBackedBufferFactory>()) const
    {
        return std::make_shared<OpenFileContext>(iriOf(key), faults, std::move(buffers));
    }

    const PrivateTempFolder temp;
    const std::shared_ptr<clients::MemoryClient> store;
    const std::shared_ptr<Faults> faults;
    const std::shared_ptr<fsp::IProvider> provider = buildCloudProvider(faults, FolderPolicy::MarkerObjects, true);

private:
    const std::uint32_t m_severities = getLogger().enabledSeverities();
};

/// Whole files and trees. Failures are what these tests are full of, and nobody reads a log of them.
class FileTest : public StoreFixture<clients::FaultyClient>
{
protected:
    explicit FileTest(const CloudClientSharedPtr& other = nullptr)
        : StoreFixture({}, other)
    {
        getLogger().setEnabledSeverities(0);
    }

    /// The bytes of a stored object; nothing when there is no such object.
    std::optional<std::string> stored(const std::string& key) const
    {
        if (!faults->inner().getObjectInfo(key).exists)
        {
            return std::nullopt;
        }
        std::ostringstream bytes;
        faults->inner().getObjectRange(key, bytes, 0, 0);
        return bytes.str();
    }

    std::vector<clients::PendingUpload> openUploads() const
    {
        return clients::findInterface<clients::UploadInventory>(*faults)->pendingUploads();
    }
};

} // namespace storage::cloudprovider
