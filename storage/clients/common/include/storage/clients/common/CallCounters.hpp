#pragma once

#include <storage/clients/common/Operation.hpp>
#include <storage/clients/common/PartIndexes.hpp>

#include <array>
#include <atomic>
#include <cstdint>
#include <iosfwd>
#include <mutex>
#include <string>

namespace storage::clients
{

/// What a store was asked to do up to one moment. A plain value.
struct CallSnapshot
{
    struct Count
    {
        std::uint64_t calls = 0; ///< calls that arrived, failed ones included
        std::uint64_t bytes = 0; ///< content bytes of the calls that succeeded

        bool operator==(const Count&) const = default;
    };

    std::array<Count, allOperations.size()> operations; ///< in the order of allOperations
    PartIndexes uploadedParts;                          ///< indexes that uploadPart() stored, of all files together
    PartIndexes copiedParts;                            ///< indexes that copyPart() stored, of all files together

    const Count& operator[](Operation operation) const { return operations[static_cast<std::size_t>(operation)]; }

    /// Calls of all operations together.
    std::uint64_t totalCalls() const noexcept;

    bool operator==(const CallSnapshot&) const = default;
};

/// Print for people, operations that were called in the interface's order, on one line without an end of line:
/// "uploadPart 1 (5.0 MiB; parts 6), copyPart 12 (60.0 MiB; parts 0-5,7-12), completeMultipartUpload 1"; "no calls"
/// when there were none.
std::ostream& operator<<(std::ostream& out, const CallSnapshot& snapshot);

/// Bytes as people read them, in powers of 1,024 with one decimal from KiB on: "512 B", "5.0 MiB".
std::string formatBytes(std::uint64_t bytes);

/// The counters that a store keeps of itself. Safe for concurrent calls on one instance.
class CallCounters
{
public:
    /// Count one call; say so when it arrives, whatever becomes of it.
    void countCall(Operation operation) noexcept;

    /// Count content bytes that a call has moved, once it has succeeded. For a copied part: the bytes copied.
    void countBytes(Operation operation, std::uint64_t bytes) noexcept;

    /// Count a part that is now stored, with its bytes.
    ///
    /// @param operation  UploadPart or CopyPart
    void countPart(Operation operation, std::size_t index, std::uint64_t bytes);

    /// Copy the present state. Calls in flight are counted in part; a call that has returned is counted whole.
    CallSnapshot snapshot() const;

private:
    struct Count
    {
        std::atomic<std::uint64_t> calls = 0;
        std::atomic<std::uint64_t> bytes = 0;
    };

    std::array<Count, allOperations.size()> m_counts;

    mutable std::mutex m_partsMutex; // innermost: nothing is called while it is held
    PartIndexes m_uploadedParts;     // guarded by m_partsMutex
    PartIndexes m_copiedParts;       // guarded by m_partsMutex
};

/// What a client offers beside CloudClient when it counts its calls. A host finds out with findInterface().
class StoreCounters
{
public:
    virtual ~StoreCounters() = default;

    /// What the store behind this client was asked since it was opened. From any thread.
    virtual CallSnapshot callSnapshot() const = 0;
};

} // namespace storage::clients
