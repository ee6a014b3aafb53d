#include "RefreshingCredentials.hpp"

#include "CredentialsFailure.hpp"

#include <storage/cloudprovider/Logger.hpp>

#include <algorithm>
#include <utility>

namespace storage::clients::s3
{

namespace
{

using namespace std::chrono_literals;

// Before the expiry: a request that is signed now may be delayed and retried.
constexpr std::chrono::seconds refreshAhead = 5min;
constexpr std::chrono::seconds minLifetime = 10s; // a service may return the same ones until shortly before they expire

// How long a failed load is cached.
constexpr std::chrono::seconds retryMissing = 60s;          // users configure credentials rarely
constexpr std::chrono::seconds retryFailed = 1s;            // threads that waited for the same load share its failure
constexpr std::chrono::seconds retryFailedWhileValid = 30s; // the old ones can still be used

/// Refuse control characters: one would end its field of a request, and the text after it would become another field.
/// Most often it is the line break at the end of a file that a variable was read from.
void checkUsable(const Credentials& credentials)
{
    const auto isControl = [](char letter) { return (letter >= 0 && letter < ' ') || letter == 0x7F; };
    for (const std::string& text : {credentials.keyId, credentials.secret, credentials.sessionToken})
    {
        if (std::any_of(text.begin(), text.end(), isControl))
        {
            throw invalidCredentials(
                "key id, secret or session token contain a control character, such as a line break");
        }
    }
}

} // namespace

RefreshingCredentials::RefreshingCredentials(CredentialsLoader loader, Clock clock)
    : m_clock(std::move(clock))
    , m_loader(std::move(loader))
{
}

Credentials RefreshingCredentials::credentials()
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

void RefreshingCredentials::refresh()
{
    const std::lock_guard lock(m_mutex);
    const auto age = m_clock() - m_loadedAt;
    if (!m_issued || age < 0s || age >= minLifetime)
    {
        m_issued.reset();
        m_failure.reset();
        m_reloadAfter = 0s;
    }
}

void RefreshingCredentials::load(std::unique_lock<std::mutex>& lock)
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

RefreshingCredentials::Outcome RefreshingCredentials::tryLoad() noexcept
{
    try
    {
        auto result = m_loader();
        if (const auto* none = std::get_if<NoCredentials>(&result))
        {
            return LoadFailure{false, "no credentials: " + none->reason};
        }
        auto& issued = std::get<IssuedCredentials>(result);
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

void RefreshingCredentials::keep(IssuedCredentials issued, TimePoint now)
{
    m_reloadAfter =
        issued.expiry ? std::max(minLifetime, *issued.expiry - refreshAhead - now) : std::chrono::seconds::max();
    m_issued = std::move(issued);
    m_failure.reset();
}

void RefreshingCredentials::keep(LoadFailure failure, TimePoint now)
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

bool RefreshingCredentials::isValid(TimePoint now) const
{
    return m_issued && (!m_issued->expiry || now < *m_issued->expiry);
}

bool RefreshingCredentials::isDue(TimePoint now) const
{
    const auto age = now - m_loadedAt;
    return age < 0s || age >= m_reloadAfter; // negative: the clock was set back
}

RefreshingCredentials::TimePoint RefreshingCredentials::systemTime()
{
    return std::chrono::floor<std::chrono::seconds>(std::chrono::system_clock::now());
}

} // namespace storage::clients::s3
