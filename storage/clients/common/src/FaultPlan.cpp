#include <storage/clients/common/FaultPlan.hpp>
#include <storage/clients/common/KeyRules.hpp>

#include <storage/cloudprovider/CloudExceptions.hpp>

#include <thread>
#include <utility>

namespace storage::clients
{

void FaultPlan::inject(Fault fault)
{
    const std::lock_guard lock(m_mutex);
    m_faults.push_back(std::move(fault));
}

void FaultPlan::clearFaults()
{
    const std::lock_guard lock(m_mutex);
    m_faults.clear();
}

void FaultPlan::setHook(Hook hook)
{
    const std::lock_guard lock(m_mutex);
    m_hook = std::move(hook);
}

void FaultPlan::setDelay(std::chrono::nanoseconds delay)
{
    const std::lock_guard lock(m_mutex);
    m_delay = delay;
}

std::exception_ptr FaultPlan::begin(Operation operation, const std::string& key)
{
    std::optional<Fault> striking;
    Hook hook;
    std::chrono::nanoseconds delay;
    {
        const std::lock_guard lock(m_mutex);
        hook = m_hook;
        delay = m_delay;
        std::erase_if(m_faults,
            [&](Fault& fault)
            {
                if (fault.operation.value_or(operation) != operation)
                {
                    return false;
                }
                const bool strikes = fault.call <= 1;
                if (strikes && !striking)
                {
                    striking = fault;
                }
                // Each fault counts every call that concerns it, also one that another fault has taken.
                return fault.call != 0 && --fault.call == 0;
            });
    }

    if (hook)
    {
        hook(operation, key);
    }
    if (delay > std::chrono::nanoseconds::zero())
    {
        std::this_thread::sleep_for(delay);
    }
    if (!striking)
    {
        return nullptr;
    }
    if (!striking->failure)
    {
        striking->failure = std::make_exception_ptr(cloudprovider::UnknownErrorException(
            "Injected fault", std::string(name(operation)) + " of " + quoted(key) + ": injected fault"));
    }
    if (striking->moment == Fault::Moment::BeforeEffect)
    {
        std::rethrow_exception(striking->failure);
    }
    return striking->failure;
}

} // namespace storage::clients
