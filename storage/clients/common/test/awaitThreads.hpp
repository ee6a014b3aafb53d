#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <iterator>
#include <thread>

extern "C" [[gnu::weak]] void __tsan_init(); // not null under ThreadSanitizer

namespace storage::clients::test
{

/// Wait until this process has so many threads. A thread that was joined may still count for a moment. After a minute,
/// fail the test.
inline void awaitThreads(std::ptrdiff_t expected)
{
    const auto count = [] { return std::distance(std::filesystem::directory_iterator("/proc/self/task"), {}); };
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(1);
    while (__tsan_init == nullptr && count() != expected) // the sanitizer has a thread, and reports those that leak
    {
        if (std::chrono::steady_clock::now() > deadline)
        {
            FAIL() << "there are " << count() << " threads instead of " << expected;
        }
        std::this_thread::yield();
    }
}

} // namespace storage::clients::test
