#pragma once

#include <cstddef>
#include <filesystem>
#include <iterator>
#include <thread>

extern "C" [[gnu::weak]] void __tsan_init(); // not null under ThreadSanitizer

namespace storage::clients
{

/// Wait until this process has so many threads, of which one that was joined may be there for a moment more.
inline void awaitThreads(std::ptrdiff_t count)
{
    const auto now = [] { return std::distance(std::filesystem::directory_iterator("/proc/self/task"), {}); };
    while (__tsan_init == nullptr && now() != count) // the sanitizer has a thread too, and tells of those that are left
    {
        std::this_thread::yield();
    }
}

} // namespace storage::clients
