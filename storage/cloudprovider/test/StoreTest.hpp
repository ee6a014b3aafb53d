#pragma once

#include "OpenFileContext.hpp"
#include "TestStore.hpp"

#include <storage/cloudprovider/CloudExceptions.hpp>
#include <storage/cloudprovider/DiskBackedBufferFactory.hpp>
#include <storage/cloudprovider/Logger.hpp>

#include <foundation/storage/provider/ByteStream.hpp>
#include <foundation/storage/provider/ByteStreamFailure.hpp>
#include <foundation/storage/provider/Exception.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

namespace storage::cloudprovider
{

namespace fsp = foundation::storage::provider;
using Lines = TestStore::Lines;

/// Sets a variable of the environment for a scope; nothing unsets it.
class ScopedVariable
{
public:
    ScopedVariable(const char* name, const std::optional<std::string>& value)
        : m_name(name)
    {
        if (const char* old = std::getenv(name))
        {
            m_old = old;
        }
        set(value);
    }
    ScopedVariable(const ScopedVariable&) = delete;
    ScopedVariable& operator=(const ScopedVariable&) = delete;
    ~ScopedVariable() { set(m_old); }

private:
    void set(const std::optional<std::string>& value)
    {
        value ? ::setenv(m_name, value->c_str(), 1) : ::unsetenv(m_name);
    }

    const char* const m_name;
    std::optional<std::string> m_old;
};

/// Takes the log for a scope. Entry records are off at first.
class LogCapture
{
public:
    LogCapture()
    {
        foundation::log::setSink(
            [this](std::uint32_t severity, std::string_view, std::string_view text) {
                m_records.push_back({severity, std::string(text)});
            });
    }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;
    ~LogCapture()
    {
        foundation::log::setSink({});
        getLogger().setEnabledSeverities(m_mask);
    }

    /// Give the records of one severity since the last time, and forget all.
    Lines take(std::uint32_t severity)
    {
        Lines texts;
        for (Record& record : std::exchange(m_records, {}))
        {
            if (record.severity == severity)
            {
                texts.push_back(std::move(record.text));
            }
        }
        return texts;
    }

private:
    struct Record
    {
        std::uint32_t severity;
        std::string text;
    };

    const std::uint32_t m_mask = getLogger().enabledSeverities();
    std::vector<Record> m_records;
};

inline fsp::StorageIRI iri(const std::string& path)
{
    return fsp::StorageIRI::fromUtf8("cloud://store/" + path);
}

/// Tell in one line what an action gave or threw: "4 cloud://store/a", "6 (why) cloud://store/a",
/// "ByteStreamReadFailure 9", "Cloud Resource not found".
template <typename Action>
std::string outcome(const Action& action)
{
    const auto text = [](const fsp::ErrorCode& code)
    { return std::to_string(code.value()) + (code.detail() ? " (" + *code.detail() + ")" : ""); };
    try
    {
        if constexpr (std::is_void_v<decltype(action())>)
        {
            action();
            return "done";
        }
        else
        {
            return action();
        }
    }
    catch (const fsp::Exception& exception)
    {
        return text(exception.errorCode()) + " " + exception.iri().toUtf8();
    }
    catch (const fsp::ByteStreamFailure& failure)
    {
        const std::string what = failure.what();
        EXPECT_EQ(failure.code(), std::error_code(1, std::iostream_category()));
        return what.substr(0, what.find(':')) + " " + text(failure.reason());
    }
    catch (const std::exception& exception)
    {
        return exception.what();
    }
}

/// Read everything from the stream's position, 7 bytes at a time.
inline std::string readAll(fsp::ByteStream& stream)
{
    std::string all;
    char block[7];
    for (std::streamsize count = 0; (count = stream.read(block, sizeof block)) >= 0;)
    {
        all.append(block, static_cast<std::size_t>(count));
    }
    return all;
}

/// A store, and the log.
class StoreTest : public ::testing::Test
{
protected:
    /// Describe the file "k" with sizes of choice.
    OpenFileContextSharedPtr context(std::uint64_t partSize, std::uint64_t cacheLimit = 100,
        std::unique_ptr<BufferFactory> buffers = std::make_unique<DiskBackedBufferFactory>()) const
    {
        const ScopedVariable first("ZV_CLOUD_PART_SIZE_OVERRIDE", std::to_string(partSize));
        const ScopedVariable second("ZV_CLOUD_DOWNLOADED_PART_CACHE_OVERRIDE", std::to_string(cacheLimit));
        return std::make_shared<OpenFileContext>(iri("k"), store, std::move(buffers));
    }

    /// Store an object in parts, unseen.
    void putParts(const std::string& key, const std::vector<std::string>& contents) const
    {
        clients::MemoryClient& client = *store;
        const std::string upload = client.MemoryClient::createMultipartUpload(key, "");
        std::vector<PartInfo> parts;
        std::size_t offset = 0;
        for (const std::string& content : contents)
        {
            std::istringstream in(content);
            PartInfo part{parts.size(), offset, content.size(), ""};
            part.Tag = client.MemoryClient::uploadPart(key, upload, part, in);
            offset += part.Size;
            parts.push_back(part);
        }
        client.MemoryClient::completeMultipartUpload(key, upload, parts);
    }

    /// Let calls of an operation fail: the n-th from now, or all.
    void fail(clients::Operation operation, std::uint64_t call = 0, std::exception_ptr failure = nullptr) const
    {
        store->faults().inject({.operation = operation, .call = call, .failure = std::move(failure)});
    }

    LogCapture log;
    const std::shared_ptr<TestStore> store = std::make_shared<TestStore>();
};

/// Names table rows by their `name`.
struct RowName
{
    std::string operator()(const auto& info) const { return info.param.name; }
};

} // namespace storage::cloudprovider
