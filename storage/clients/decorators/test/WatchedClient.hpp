#pragma once

#include <storage/clients/decorators/InterceptingClient.hpp>

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace storage::clients
{

/// Notes for which ranges the store is asked, and can keep back the answers to others than the thread that made it.
/// Safe for concurrent calls.
class WatchedClient : public InterceptingClient
{
public:
    /// @param rangeSize  bytes; ranges are numbered by the multiple of it that they begin in
    WatchedClient(std::shared_ptr<cloudprovider::CloudClient> inner, std::uint64_t rangeSize)
        : InterceptingClient(std::move(inner))
        , m_rangeSize(rangeSize)
    {
    }

    void getObjectRange(const std::string& key, std::ostream& out, std::uint64_t first, std::uint64_t last) override
    {
        std::unique_lock lock(m_mutex);
        m_asked[key].push_back(first / m_rangeSize);
        m_bytes += last - first + 1;
        m_changed.notify_all();
        lock.unlock();
        InterceptingClient::getObjectRange(key, out, first, last);
        lock.lock();
        m_changed.wait(lock, [this] { return !m_holds || std::this_thread::get_id() == m_owner; });
    }

    /// Keep back answers, or release them.
    void hold(bool holds)
    {
        const std::lock_guard lock(m_mutex);
        m_holds = holds;
        m_changed.notify_all();
    }

    /// Wait until so many calls have asked for ranges of the key. @return the numbers of the ranges, in that order
    std::vector<std::uint64_t> asked(const std::string& key, std::size_t calls = 0)
    {
        std::unique_lock lock(m_mutex);
        m_changed.wait(lock, [&] { return m_asked[key].size() >= calls; });
        return m_asked[key];
    }

    /// How many were asked for.
    std::uint64_t bytes() const { return m_bytes; }

private:
    const std::uint64_t m_rangeSize;
    const std::thread::id m_owner = std::this_thread::get_id();
    std::atomic<std::uint64_t> m_bytes = 0;
    std::mutex m_mutex; // guards what follows
    std::condition_variable m_changed;
    std::map<std::string, std::vector<std::uint64_t>> m_asked;
    bool m_holds = false;
};

} // namespace storage::clients
