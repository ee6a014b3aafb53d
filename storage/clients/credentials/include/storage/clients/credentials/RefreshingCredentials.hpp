#pragma once

#include <storage/clients/credentials/CredentialsLoader.hpp>
#include <storage/cloudprovider/Logger.hpp>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <variant>

namespace storage::clients
{

/// Caches credentials, and loads new ones before they expire.
///
/// One thread loads at a time. Meanwhile other threads use the old credentials while those are valid, or else wait. A
/// failure is cached for a while, too, so that not every request waits for a service that does not respond.
///
/// Credentials have a function checkUsable() in their namespace. It throws if they contain control characters: one
/// would end its field of a request, and the text after it would become another field. Most often it is the line break
/// at the end of a file that a variable was read from.
/// @tparam Source  the interface of a store that this implements: credentials() and refresh()
template <typename Source>
class RefreshingCredentials : public Source
{
public:
    using Credentials = decltype(std::declval<Source&>().credentials());
    using TimePoint = std::chrono::sys_seconds;
    using Clock = std::function<TimePoint()>;

    /// @param clock  the current time
    explicit RefreshingCredentials(LoaderOf<Credentials> loader, Clock clock = systemTime);

    Credentials credentials() override;

    /// Does nothing within ten seconds after a load: another caller that was refused at the same time has already
    /// loaded new credentials, or loading does not help.
    void refresh() override;

private:
    // Before the expiry: a request that is signed now may be delayed and retried.
    static constexpr std::chrono::seconds refreshAhead = std::chrono::minutes(5);
    // A service may return the same ones until shortly before they expire.
    static constexpr std::chrono::seconds minLifetime{10};

    // How long a failed load is cached.
    static constexpr std::chrono::seconds retryMissing{60}; // users configure credentials rarely
    static constexpr std::chrono::seconds retryFailed{1};   // threads that waited for the same load share its failure
    static constexpr std::chrono::seconds retryFailedWhileValid{30}; // the old ones can still be used

    struct LoadFailure
    {
        bool isTransient;
        std::string detail;
    };
    using Outcome = std::variant<Issued<Credentials>, LoadFailure>;

    /// Load, with m_mutex released meanwhile.
    void load(std::unique_lock<std::mutex>& lock);
    Outcome tryLoad() noexcept; // an exception would leave other threads waiting forever
    void keep(Issued<Credentials> issued, TimePoint now);
    void keep(LoadFailure failure, TimePoint now);

    bool isValid(TimePoint now) const;
    bool isDue(TimePoint now) const;

    static TimePoint systemTime();

    const Clock m_clock;
    const LoaderOf<Credentials> m_loader; // used only by the thread that has set m_isLoading

    // Innermost except for the logger's; released while a thread loads.
    std::mutex m_mutex;
    std::condition_variable m_loaded;
    bool m_isLoading = false;                    // guarded by m_mutex, as is all below
    std::optional<Issued<Credentials>> m_issued; // loaded last, valid or not
    std::optional<LoadFailure> m_failure;        // of the last load
    TimePoint m_loadedAt{};
    std::chrono::seconds m_reloadAfter{0}; // how long after m_loadedAt the next load is due
};

template <typename Source>
RefreshingCredentials<Source>::RefreshingCredentials(LoaderOf<Credentials> loader, Clock clock)
    : m_clock(std::move(clock))
    , m_loader(std::move(loader))
{
}

template <typename Source>
auto RefreshingCredentials<Source>::credentials() -> Credentials
{
    std::unique_lock lock(m_mutex);
    for (;;)
    {
        const TimePoint now = m_clock();
        if (isValid(now) && (!isDue(now) || m_isLoading))
        {
            return m_issued->credentials;
        }
        if (m_isLoading)
        {
            m_loaded.wait(lock);
        }
        else if (!isDue(now) && m_failure)
        {
            if (m_failure->isTransient)
            {
                throw credentialsUnavailable(m_failure->detail);
            }
            throw invalidCredentials(m_failure->detail);
        }
        else
        {
            load(lock);
        }
    }
}

template <typename Source>
void RefreshingCredentials<Source>::refresh()
{
    const std::lock_guard lock(m_mutex);
    const auto age = m_clock() - m_loadedAt;
    if (!m_issued || age < std::chrono::seconds(0) || age >= minLifetime)
    {
        m_issued.reset();
        m_failure.reset();
        m_reloadAfter = std::chrono::seconds(0);
    }
}

template <typename Source>
void RefreshingCredentials<Source>::load(std::unique_lock<std::mutex>& lock)
{
    m_isLoading = true;
    lock.unlock();
    Outcome outcome = tryLoad();
    lock.lock();
    m_isLoading = false;
    m_loaded.notify_all();
    m_loadedAt = m_clock();
    std::visit([this](auto& result) { keep(std::move(result), m_loadedAt); }, outcome);
}

template <typename Source>
auto RefreshingCredentials<Source>::tryLoad() noexcept -> Outcome
{
    try
    {
        auto result = m_loader();
        if (const auto* none = std::get_if<NoCredentials>(&result))
        {
            return LoadFailure{false, "no credentials: " + none->reason};
        }
        auto& issued = std::get<Issued<Credentials>>(result);
        checkUsable(issued.credentials);
        if (issued.expiry && *issued.expiry <= m_clock())
        {
            return LoadFailure{true, "the new credentials have already expired; check the clock of this machine"};
        }
        return std::move(issued);
    }
    catch (const TransientException& exception)
    {
        return LoadFailure{true, exception.detail().value_or(exception.what())};
    }
    catch (const cloudprovider::CloudException& exception)
    {
        return LoadFailure{false, exception.detail().value_or(exception.what())};
    }
    catch (const std::exception& exception)
    {
        return LoadFailure{true, std::string("loading credentials: ") + exception.what()};
    }
}

template <typename Source>
void RefreshingCredentials<Source>::keep(Issued<Credentials> issued, TimePoint now)
{
    m_reloadAfter =
        issued.expiry ? std::max(minLifetime, *issued.expiry - refreshAhead - now) : std::chrono::seconds::max();
    m_issued = std::move(issued);
    m_failure.reset();
}

template <typename Source>
void RefreshingCredentials<Source>::keep(LoadFailure failure, TimePoint now)
{
    if (isValid(now))
    {
        auto& logger = cloudprovider::getLogger();
        if (logger.isEnabled(foundation::log::severity::warning))
        {
            logger.write(foundation::log::severity::warning,
                "Continuing with the current credentials, because they could not be replaced: " + failure.detail);
        }
        // Credentials without an expiry are only replaced after refresh() has dropped them, so these have one.
        m_reloadAfter = std::min(retryFailedWhileValid, m_issued->expiry.value_or(TimePoint::max()) - now);
    }
    else
    {
        m_reloadAfter = failure.isTransient ? retryFailed : retryMissing;
    }
    m_failure = std::move(failure);
}

template <typename Source>
bool RefreshingCredentials<Source>::isValid(TimePoint now) const
{
    return m_issued && (!m_issued->expiry || now < *m_issued->expiry);
}

template <typename Source>
bool RefreshingCredentials<Source>::isDue(TimePoint now) const
{
    const auto age = now - m_loadedAt;
    return age < std::chrono::seconds(0) || age >= m_reloadAfter; // negative: the clock was set back
}

template <typename Source>
auto RefreshingCredentials<Source>::systemTime() -> TimePoint
{
    return std::chrono::floor<std::chrono::seconds>(std::chrono::system_clock::now());
}

} // namespace storage::clients
