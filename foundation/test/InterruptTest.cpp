#include <foundation/core/except/InterruptedException.hpp>
#include <foundation/interrupt/utInterruptState.hpp>
#include <foundation/usm/Context.hpp>

#include <gtest/gtest.h>

#include <csignal>
#include <optional>

namespace
{

TEST(InterruptTest, StaysPendingUntilCleared)
{
    EXPECT_NO_THROW(utInterruptState::ThrowIfInterruptPending());
    const auto former = std::signal(SIGUSR1, [](int) { utInterruptState::RequestInterrupt(); });
    std::raise(SIGUSR1);
    std::signal(SIGUSR1, former);
    for (int asked = 0; asked < 2; ++asked)
    {
        EXPECT_TRUE(utInterruptState::IsInterruptPending());
        EXPECT_THROW(utInterruptState::ThrowIfInterruptPending(), foundation::core::except::InterruptedException);
    }
    utInterruptState::ClearInterrupt();
    EXPECT_NO_THROW(utInterruptState::ThrowIfInterruptPending());
}

TEST(InterruptTest, ContextIsActiveWhileAnyScopeLives)
{
    EXPECT_FALSE(foundation::usm::isRequiredContextActive());
    std::optional<foundation::usm::ContextScope> first(std::in_place);
    std::optional<foundation::usm::ContextScope> second(std::in_place);
    first.reset();
    EXPECT_TRUE(foundation::usm::isRequiredContextActive());
    second.reset();
    EXPECT_FALSE(foundation::usm::isRequiredContextActive());
}

} // namespace
