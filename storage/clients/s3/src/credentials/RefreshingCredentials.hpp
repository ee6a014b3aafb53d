#pragma once

#include "CredentialsProvider.hpp"

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <variant>

namespace storage::clients::s3
{

/// Keeps what a place has given, and looks there again before it expires.
///
/// One thread looks; the others go on with what is still valid, or wait for it. What was found missing is not looked
/// for again for a while, so that not every request waits for a service that does not answer.
class RefreshingCredentials : public CredentialsSource
{
public:
    using TimePoint = std::chrono::sys_seconds;
    using Clock = std::function<TimePoint()>;

    /// @param clock  replaced by tests
    explicit RefreshingCredentials(std::unique_ptr<CredentialsProvider> provider, Clock clock = systemTime);

    Credentials credentials() override;

    /// Nothing when they were found within the last ten seconds: then another caller, refused together with this one,
    /// has fetched them already, or fetching does not help.
    void refresh() override;

private:
    struct Failure
    {
        bool isTransient;
        std::string detail;
    };
    using Outcome = std::variant<IssuedCredentials, Failure>;

    /// Look, with m_mutex released meanwhile.
    void load(std::unique_lock<std::mutex>& lock);
    Outcome tryLoad() noexcept; // an exception would leave the others waiting for good
    void keep(IssuedCredentials issued, TimePoint now);
    void keep(Failure failure, TimePoint now);

    bool isValid(TimePoint now) const;
    bool isDue(TimePoint now) const;

    static TimePoint systemTime();

    const Clock m_clock;
    const std::unique_ptr<CredentialsProvider> m_provider; // used by the one thread that has set m_isLoading

    // Innermost but for the logger's; released while a thread looks.
    std::mutex m_mutex;
    std::condition_variable m_loaded;
    bool m_isLoading = false;                  // guarded by m_mutex, as is all below
    std::optional<IssuedCredentials> m_issued; // what was found last, valid or not
    std::optional<Failure> m_failure;          // of the last look
    TimePoint m_loadedAt{};
    std::chrono::seconds m_reloadAfter{0}; // how long after m_loadedAt the next look is due
};

} // namespace storage::clients::s3
