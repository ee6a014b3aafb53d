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

constexpr std::chrono::seconds ahead = 5min;    // of the expiry; a request that is signed now may wait and be repeated
constexpr std::chrono::seconds leastKept = 10s; // a service may give the same ones until shortly before they expire

// How long a look that found nothing counts.
constexpr std::chrono::seconds missing = 60s;            // nobody sets up credentials more often
constexpr std::chrono::seconds unanswered = 1s;          // threads that waited together fail together
constexpr std::chrono::seconds unansweredButValid = 30s; // there is time

/// A field of a request ends at a control character, and what follows would be taken for the next one. Most often it is
/// the end of line of the file that a variable was filled from.
void checkUsable(const Credentials& credentials)
{
    const auto isControl = [](char letter) { return (letter >= 0 && letter < ' ') || letter == 0x7F; };
    for (const std::string& text : {credentials.keyId, credentials.secret, credentials.sessionToken})
    {
        if (std::any_of(text.begin(), text.end(), isControl))
        {
            throw invalidCredentials(
                "key id, secret or session token contain a control character, such as an end of line");
        }
    }
}

} // namespace

RefreshingCredentials::RefreshingCredentials(std::unique_ptr<CredentialsPlace> place, Clock clock)
    : m_clock(std::move(clock))
    , m_place(std::move(place))
{
}

Credentials RefreshingCredentials::credentials()
{
    std::unique_lock lock(m_mutex);
    for (;;)
    {
        const TimePoint now = m_clock();
        if (isValid(now) && (!isDue(now) || m_isLooking))
        {
            return m_issued->credentials;
        }
        if (m_isLooking)
        {
            m_looked.wait(lock);
        }
        else if (!isDue(now) && m_failure)
        {
            if (m_failure->isTransient)
            {
                throw credentialsDelayed(m_failure->detail);
            }
            throw invalidCredentials(m_failure->detail);
        }
        else
        {
            look(lock);
        }
    }
}

void RefreshingCredentials::refresh()
{
    const std::lock_guard lock(m_mutex);
    const auto age = m_clock() - m_lookedAt;
    if (!m_issued || age < 0s || age >= leastKept)
    {
        m_issued.reset();
        m_failure.reset();
        m_patience = 0s;
    }
}

void RefreshingCredentials::look(std::unique_lock<std::mutex>& lock)
{
    m_isLooking = true;
    lock.unlock();
    Outcome outcome = outcomeOfLooking();
    lock.lock();
    m_isLooking = false;
    m_looked.notify_all();
    m_lookedAt = m_clock();
    std::visit([this](auto& result) { keep(std::move(result), m_lookedAt); }, outcome);
}

RefreshingCredentials::Outcome RefreshingCredentials::outcomeOfLooking() noexcept
{
    try
    {
        auto finding = m_place->look();
        if (const auto* none = std::get_if<NoCredentials>(&finding))
        {
            return Failure{false, "no credentials: " + none->reason};
        }
        auto& issued = std::get<IssuedCredentials>(finding);
        checkUsable(issued.credentials);
        if (issued.expiry && *issued.expiry <= m_clock())
        {
            return Failure{true, "the credentials given have expired already; is the clock of this machine right?"};
        }
        return std::move(issued);
    }
    catch (const TransientException& exception)
    {
        return Failure{true, exception.detail().value_or(exception.what())};
    }
    catch (const cloudprovider::CloudException& exception)
    {
        return Failure{false, exception.detail().value_or(exception.what())};
    }
    catch (const std::exception& exception)
    {
        return Failure{true, std::string("looking for credentials: ") + exception.what()};
    }
}

void RefreshingCredentials::keep(IssuedCredentials issued, TimePoint now)
{
    m_patience = issued.expiry ? std::max(leastKept, *issued.expiry - ahead - now) : std::chrono::seconds::max();
    m_issued = std::move(issued);
    m_failure.reset();
}

void RefreshingCredentials::keep(Failure failure, TimePoint now)
{
    if (isValid(now))
    {
        auto& logger = cloudprovider::getLogger();
        if (logger.isEnabled(foundation::log::severity::warning))
        {
            logger.write(foundation::log::severity::warning,
                "Going on with the credentials at hand, which could not be replaced: " + failure.detail);
        }
        // What is valid without end is replaced only when refresh() has dropped it, so there is an expiry.
        m_patience = std::min(unansweredButValid, m_issued->expiry.value_or(TimePoint::max()) - now);
    }
    else
    {
        m_patience = failure.isTransient ? unanswered : missing;
    }
    m_failure = std::move(failure);
}

bool RefreshingCredentials::isValid(TimePoint now) const
{
    return m_issued && (!m_issued->expiry || now < *m_issued->expiry);
}

bool RefreshingCredentials::isDue(TimePoint now) const
{
    const auto age = now - m_lookedAt;
    return age < 0s || age >= m_patience; // a clock that was set back says nothing
}

RefreshingCredentials::TimePoint RefreshingCredentials::systemTime()
{
    return std::chrono::floor<std::chrono::seconds>(std::chrono::system_clock::now());
}

} // namespace storage::clients::s3
