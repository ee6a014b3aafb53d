#pragma once

#include "OpenFileContext.hpp"

#include <storage/clients/decorators/FaultyClient.hpp>
#include <storage/clients/decorators/FindInterface.hpp>
#include <storage/clients/memory/MemoryClient.hpp>
#include <storage/clients/testing/ClientCalls.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>
#include <storage/cloudprovider/CloudProvider.hpp>
#include <storage/cloudprovider/DiskBackedBufferFactory.hpp>
#include <storage/cloudprovider/Logger.hpp>
#include <storage/cloudprovider/utils.hpp>

#include <foundation/storage/provider/ByteStreamFailure.hpp>
#include <foundation/storage/provider/Exception.hpp>

#include <boost/filesystem/operations.hpp>
#include <gmock/gmock.h>

#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <unistd.h>
#include <utility>
#include <vector>

namespace storage::cloudprovider
{

namespace fsp = foundation::storage::provider;
using clients::Operation;
using testing::IsEmpty;
using testing::SizeIs;

constexpr fsp::ByteStreamOpenOptions editing{fsp::ByteStreamReadAccess::Allowed, fsp::ByteStreamCreate::IfMissing,
    fsp::ByteStreamTruncate::Keep, fsp::ByteStreamWritePosition::AtOffset};
constexpr fsp::ByteStreamOpenOptions appending{fsp::ByteStreamReadAccess::None, fsp::ByteStreamCreate::IfMissing,
    fsp::ByteStreamTruncate::Keep, fsp::ByteStreamWritePosition::Append};

inline fsp::StorageIRI iriOf(const std::string& key)
{
    return fsp::StorageIRI::fromUtf8("mem://test/" + key);
}

inline std::streamsize write(fsp::ByteStream& stream, const std::string& bytes)
{
    return stream.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

inline void writeAt(fsp::ByteStream& stream, std::size_t offset, const std::string& bytes)
{
    stream.seek(static_cast<std::streamoff>(offset), std::ios_base::beg);
    write(stream, bytes);
}

/// Read up to `size` bytes from an offset.
inline std::string readAt(fsp::ByteStream& stream, std::size_t offset, std::size_t size)
{
    std::string bytes(size, '?');
    stream.seek(static_cast<std::streamoff>(offset), std::ios_base::beg);
    const std::streamsize count = stream.read(bytes.data(), static_cast<std::streamsize>(size));
    return bytes.substr(0, static_cast<std::size_t>(std::max<std::streamsize>(count, 0)));
}

/// Bytes that show their position: none is zero, and neighbours differ.
inline std::string numberedBytes(std::size_t size, std::size_t first = 0)
{
    std::string bytes;
    for (std::size_t i = first; i < first + size; ++i)
    {
        bytes.push_back(static_cast<char>(1 + i * 7 % 250));
    }
    return bytes;
}

/// Return "done" or how the action failed: "NotFound: mem://test/a: detail", "ByteStreamReadFailure: InUse: detail".
template <typename Action>
std::string outcome(const Action& action)
{
    try
    {
        action();
        return "done";
    }
    catch (const fsp::ByteStreamFailure& failure)
    {
        const std::string name(failure.what(), std::strchr(failure.what(), ':'));
        return name + ": " + testing::PrintToString(failure.reason());
    }
    catch (const std::exception& exception)
    {
        return exception.what();
    }
}

/// Return "done" or the name of the framework's code that the action fails with.
template <typename Action>
std::string reasonOf(const Action& action)
{
    const std::string text = outcome(action);
    const std::size_t begin = text.starts_with("ByteStream") ? text.find(": ") + 2 : 0;
    return text.substr(begin, text.find(':', begin) - begin);
}

/// Random numbers that do not depend on the standard library.
class Random
{
public:
    /// @param row  the seed; 0: MODEL_SEED from the environment or, if that is not set, a random seed
    explicit Random(unsigned row)
        : seed(row != 0                    ? row
               : std::getenv("MODEL_SEED") ? static_cast<unsigned>(std::atoi(std::getenv("MODEL_SEED")))
                                           : std::random_device{}())
        , m_engine(seed)
    {
    }

    std::size_t below(std::size_t limit) { return m_engine() % limit; }
    std::size_t between(std::size_t min, std::size_t max) { return min + below(max - min + 1); }
    bool oneIn(std::size_t count) { return below(count) == 0; }
    std::string bytes(std::size_t size) { return numberedBytes(size, below(250)); }

    const unsigned seed;

private:
    std::mt19937 m_engine;
};

/// A directory that is removed with this object. In memory if possible, because the tests create many small files.
struct PrivateFolder
{
    PrivateFolder() { create_directory(path); }
    ~PrivateFolder() { remove_all(path); }

    const boost::filesystem::path path =
        (boost::filesystem::is_directory("/dev/shm") ? "/dev/shm" : boost::filesystem::temp_directory_path()) /
        boost::filesystem::unique_path("files-%%%%%%%%");
};

/// The allocation of this thread that fails: 1 is the next one; 0: none. Counts down in a program that replaces new.
inline thread_local std::size_t allocationsLeft = 0;

/// Records calls: "listObjects d/ '/' -1; getObjectRange d/k 4 7; uploadPart d/k 1+4".
class RecordingClient : public clients::FaultyClient
{
public:
    using FaultyClient::FaultyClient;

    /// Return the calls since the last time, and forget which failed.
    std::string takeCalls()
    {
        const std::lock_guard lock(m_mutex);
        m_failed.clear();
        return std::exchange(m_calls, {});
    }

    bool hasFailed(Operation operation)
    {
        const std::lock_guard lock(m_mutex);
        return m_failed.contains(operation);
    }

    /// End the uploads whose abort has failed. Otherwise a client that opens uploads on its threads could do so later.
    void endUploads()
    {
        const std::lock_guard lock(m_mutex);
        for (const auto& upload : std::exchange(m_notAborted, {}))
        {
            outcome([&] { inner().abortMultipartUpload(upload.first, upload.second); });
        }
    }

    std::vector<ObjectEntry> listObjects(
        const std::string& prefix, std::string& continuationToken, const ListOptions& options) override
    {
        s_arguments = " '" + options.delimiter + "' " + std::to_string(options.maxKeys);
        return FaultyClient::listObjects(prefix, continuationToken, options);
    }

    void getObjectRange(const std::string& key, std::ostream& out, std::uint64_t first, std::uint64_t last) override
    {
        s_arguments = " " + std::to_string(first) + " " + std::to_string(last);
        FaultyClient::getObjectRange(key, out, first, last);
    }

protected:
    void around(const Call& call, const std::function<void()>& proceed) override
    {
        const std::size_t left = std::exchange(allocationsLeft, 0); // stores and tests have enough memory
        std::string text = std::string(clients::name(call.operation)) + " " + call.key + std::exchange(s_arguments, "");
        if (call.part != nullptr)
        {
            text += " " + std::to_string(call.part->Index) + "+" + std::to_string(call.part->Size);
        }
        {
            const std::lock_guard lock(m_mutex);
            m_calls += (m_calls.empty() ? "" : "; ") + text;
        }
        try
        {
            FaultyClient::around(call, proceed);
            allocationsLeft = left;
        }
        catch (...)
        {
            const std::lock_guard lock(m_mutex);
            m_failed.insert(call.operation);
            if (call.operation == Operation::AbortMultipartUpload)
            {
                m_notAborted.emplace_back(call.key, *call.uploadId);
            }
            allocationsLeft = left;
            throw;
        }
    }

private:
    std::mutex m_mutex;
    std::string m_calls;                                           // guarded by m_mutex
    std::set<Operation> m_failed;                                  // guarded by m_mutex
    std::vector<std::pair<std::string, std::string>> m_notAborted; // guarded by m_mutex
    static inline thread_local std::string s_arguments;            // of the call that is about to begin
};

/// A provider over a store in memory in which every object has the time 5 s after 1970 began.
class ProviderTest : public testing::Test
{
protected:
    /// @param other  a store to use instead; may be null
    explicit ProviderTest(const CloudClientSharedPtr& other = nullptr)
        : faults(std::make_shared<RecordingClient>(other ? other : store))
    {
        alarm(180); // ends a test that hangs
        setenv("TMPDIR", temp.path.c_str(), 1);
        unsetenv(partSizeVariable);
        unsetenv(cacheVariable);
        setLog(0);
        foundation::log::setSink(
            [this](std::uint32_t, std::string_view, std::string_view text) { m_records.emplace_back(text); });
    }

    ~ProviderTest() override
    {
        EXPECT_THAT(openUploads(), IsEmpty());
        EXPECT_TRUE(is_empty(temp.path)) << "temporary files are left";
        foundation::log::setSink({});
        setenv("TMPDIR", m_outerTemp.c_str(), 1);
        alarm(0);
    }

    static constexpr const char* partSizeVariable = "ZV_CLOUD_PART_SIZE_OVERRIDE";
    static constexpr const char* cacheVariable = "ZV_CLOUD_DOWNLOADED_PART_CACHE_OVERRIDE";

    /// Set the sizes of files that are opened from now on. No other thread may run.
    static void setSizes(std::size_t part, std::size_t cache)
    {
        setenv(partSizeVariable, std::to_string(part).c_str(), 1);
        setenv(cacheVariable, std::to_string(cache).c_str(), 1);
    }

    static void setLog(std::uint32_t severities) { getLogger().setEnabledSeverities(severities); }

    std::vector<std::string> takeLog() { return std::exchange(m_records, {}); }

    /// Let calls of an operation fail: the n-th from now, or all.
    void fail(Operation operation, std::uint64_t call = 0, std::exception_ptr failure = nullptr) const
    {
        faults->inject({.operation = operation, .call = call, .failure = failure ? failure : refused});
    }

    /// Store an object in parts of the given sizes, without the provider.
    void putParts(const std::string& key, const std::string& content, const std::vector<std::size_t>& sizes)
    {
        std::vector<std::string> parts;
        for (std::size_t offset = 0; const std::size_t size : sizes)
        {
            parts.push_back(content.substr(offset, size));
            offset += size;
        }
        clients::conformance::putParts(faults->inner(), key, parts);
    }

    /// The bytes of a stored object, if there is one.
    std::optional<std::string> stored(const std::string& key) const
    {
        CloudClient& client = faults->inner();
        return client.getObjectInfo(key).exists ? std::optional(clients::conformance::get(client, key)) : std::nullopt;
    }

    std::vector<clients::PendingUpload> openUploads() const
    {
        return clients::findInterface<clients::UploadInventory>(*faults)->pendingUploads();
    }

    OpenFileContextSharedPtr contextOf(const std::string& key) const
    {
        return std::make_shared<OpenFileContext>(iriOf(key), faults, std::make_unique<DiskBackedBufferFactory>());
    }

private:
    const boost::filesystem::path m_outerTemp = boost::filesystem::temp_directory_path();
    std::vector<std::string> m_records;

protected:
    const PrivateFolder temp; // the directory for temporary files, empty when all are gone
    const std::shared_ptr<clients::MemoryClient> store =
        std::make_shared<clients::MemoryClient>([] { return utils::long2Ptime(5000); });
    const std::shared_ptr<RecordingClient> faults;
    const std::shared_ptr<fsp::IProvider> provider = buildCloudProvider(faults, FolderPolicy::MarkerObjects, true);
    const std::exception_ptr refused = std::make_exception_ptr(PermissionDeniedException("refused", "why"));
};

} // namespace storage::cloudprovider
