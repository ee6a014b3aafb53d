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

/// Wait until this process has so many threads, of which one that was joined may be there for a moment more.
inline void awaitThreads(std::ptrdiff_t count)
{
    const auto now = [] { return std::distance(std::filesystem::directory_iterator("/proc/self/task"), {}); };
    const auto patience = std::chrono::steady_clock::now() + std::chrono::minutes(1);
    while (__tsan_init == nullptr && now() != count) // the sanitizer has a thread too, and tells of those that are left
    {
        if (std::chrono::steady_clock::now() > patience)
        {
            ADD_FAILURE() << "there are " << now() << " threads, and not " << count;
            return;
        }
        std::this_thread::yield();
    }
}

} // namespace storage::clients::test
