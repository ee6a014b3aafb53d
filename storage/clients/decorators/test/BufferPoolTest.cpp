#include "BufferPool.hpp"

#include <gtest/gtest.h>

#include <optional>

namespace storage::clients
{

namespace
{

TEST(BufferPoolTest, UsesFreeBuffersAgainWithinItsLimit)
{
    BufferPool pool(300);
    const auto other = pool.tryAcquire(100); // so that free ones are kept
    auto first = pool.tryAcquire(100);
    const char* const bytes = first->data();
    first.reset();
    EXPECT_NE(pool.tryAcquire(49)->data(), bytes) << "half of it would be wasted";
    EXPECT_EQ(pool.tryAcquire(50)->data(), bytes);
    EXPECT_FALSE(pool.tryAcquire(201));
    const auto all = pool.tryAcquire(200);
    EXPECT_TRUE(all) << "expected it in place of what is free";
    EXPECT_FALSE(pool.tryAcquire(1));
}

} // namespace

} // namespace storage::clients
