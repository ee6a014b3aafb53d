#pragma once

#include "CredentialsSources.hpp"

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <variant>

namespace storage::clients::s3
{

/// Caches credentials, and loads new ones before they expire.
///
/// One thread loads at a time. Meanwhile other threads use the old credentials while those are valid, or else wait. A
/// failure is cached for a while, too, so that not every request waits for a service that does not respond.
class RefreshingCredentials : public CredentialsSource
{
public:
    using TimePoint = std::chrono::sys_seconds;
    using Clock = std::function<TimePoint()>;

    /// @param clock  the current time
    explicit RefreshingCredentials(CredentialsLoader loader, Clock clock = systemTime);

    Credentials credentials() override;

    /// Does nothing within ten seconds after a load: another caller that was refused at the same time has already
    /// loaded new credentials, or loading does not help.
    void refresh() override;

private:
    struct LoadFailure
    {
        bool isTransient;
        std::string detail;
    };
    using Outcome = std::variant<IssuedCredentials, LoadFailure>;

    /// Load, with m_mutex released meanwhile.
    void load(std::unique_lock<std::mutex>& lock);
    Outcome tryLoad() noexcept; // an exception would leave other threads waiting forever
    void keep(IssuedCredentials issued, TimePoint now);
    void keep(LoadFailure failure, TimePoint now);

    bool isValid(TimePoint now) const;
    bool isDue(TimePoint now) const;

    static TimePoint systemTime();

    const Clock m_clock;
    const CredentialsLoader m_loader; // used only by the thread that has set m_isLoading

    // Innermost except for the logger's; released while a thread loads.
    std::mutex m_mutex;
    std::condition_variable m_loaded;
    bool m_isLoading = false;                  // guarded by m_mutex, as is all below
    std::optional<IssuedCredentials> m_issued; // loaded last, valid or not
    std::optional<LoadFailure> m_failure;      // of the last load
    TimePoint m_loadedAt{};
    std::chrono::seconds m_reloadAfter{0}; // how long after m_loadedAt the next load is due
};

} // namespace storage::clients::s3
