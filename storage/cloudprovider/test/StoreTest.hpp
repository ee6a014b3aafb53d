#pragma once

#include "FileTestSupport.hpp"

#include <storage/cloudprovider/CloudExceptions.hpp>
#include <storage/cloudprovider/utils.hpp>

#include <gmock/gmock.h>

#include <functional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace storage::cloudprovider
{

using clients::Operation;

/// Notes every call: "listObjects d/ '/' -1; getObjectRange d/k 4 7". Use it from one thread.
class NotingClient : public clients::FaultyClient
{
public:
    explicit NotingClient(CloudClientSharedPtr inner)
        : FaultyClient(std::move(inner))
    {
        const auto note = [this](Operation operation, const std::string& key)
        {
            m_calls += m_calls.empty() ? "" : "; ";
            m_calls += std::string(clients::name(operation)) + " " + key + std::exchange(m_arguments, "");
            onCall ? onCall(operation) : void();
        };
        setHook(note);
    }

    /// Give the calls since the last time.
    std::string takeCalls() { return std::exchange(m_calls, {}); }

    /// Runs at the beginning of every call.
    std::function<void(Operation)> onCall;

    /// If there are any, what listings give instead of the objects' keys; the tokens are page numbers.
    std::vector<std::vector<ObjectEntry>> pages;

    std::vector<ObjectEntry> listObjects(
        const std::string& prefix, std::string& continuationToken, const ListOptions& options) override
    {
        m_arguments = " '" + options.delimiter + "' " + std::to_string(options.maxKeys);
        std::string ignored;
        auto page = FaultyClient::listObjects(prefix, pages.empty() ? continuationToken : ignored, options);
        if (!pages.empty())
        {
            const std::size_t number = continuationToken.empty() ? 0 : std::stoul(continuationToken);
            continuationToken = number + 1 < pages.size() ? std::to_string(number + 1) : "";
            page = pages.at(number);
        }
        return page;
    }

    void getObjectRange(const std::string& key, std::ostream& out, std::uint64_t first, std::uint64_t last) override
    {
        m_arguments = " " + std::to_string(first) + " " + std::to_string(last);
        FaultyClient::getObjectRange(key, out, first, last);
    }

private:
    std::string m_calls;
    std::string m_arguments; // of the call that is about to begin, behind its key
};

/// Tell in one line what came of an action: "done", "NotFound: mem://test/a", "ByteStreamReadFailure: InUse: detail".
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
        std::ostringstream text;
        text << std::string(failure.what(), std::strchr(failure.what(), ':')) << ": " << failure.reason();
        return text.str();
    }
    catch (const std::exception& exception)
    {
        return exception.what();
    }
}

/// A store that is asked call by call, and the log. Everything was stored 5 seconds after 1970 began.
class StoreTest : public StoreFixture<NotingClient>
{
protected:
    StoreTest()
        : StoreFixture([] { return utils::long2Ptime(5000); })
    {
        foundation::log::setSink([this](std::uint32_t severity, std::string_view, std::string_view text)
            { m_records.emplace_back(severity, text); });
    }
    ~StoreTest() override { foundation::log::setSink({}); }

    /// Give the records of one severity since the last time, and forget all.
    std::vector<std::string> takeLog(std::uint32_t severity)
    {
        std::vector<std::string> texts;
        for (const auto& [level, text] : std::exchange(m_records, {}))
        {
            level == severity ? texts.push_back(text) : void();
        }
        return texts;
    }

    /// Let calls of an operation fail: the n-th from now, or all.
    void fail(Operation operation, std::uint64_t call = 0, std::exception_ptr failure = nullptr) const
    {
        faults->inject({.operation = operation, .call = call, .failure = std::move(failure)});
    }

    /// What a store says that refuses something.
    const std::exception_ptr refused = std::make_exception_ptr(PermissionDeniedException("refused", "why"));

private:
    std::vector<std::pair<std::uint32_t, std::string>> m_records;
};

} // namespace storage::cloudprovider
