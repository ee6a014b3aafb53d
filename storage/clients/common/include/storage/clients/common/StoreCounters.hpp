#pragma once

#include <storage/clients/common/Operation.hpp>
#include <storage/clients/common/PartIndexes.hpp>

#include <array>
#include <cstdint>
#include <iosfwd>
#include <string>

namespace storage::clients
{

/// The counters at one moment. A plain value.
///
/// CountingClient counts the calls of a client. RemoteClient counts the attempts at requests to its store, retries and
/// prefetches included. The request that opens an object is a getObjectParts, one that lists open uploads a
/// listObjects, one that reads bytes to send them again a getObjectRange, one that copies an object a copyPart, and one
/// that deletes many a deleteObject. What a write looks up before or after its request belongs to the attempt and is
/// not counted. Its parts are those of the store, so one copyPart may have copied many parts of the file.
struct CallSnapshot
{
    struct Count
    {
        std::uint64_t calls = 0; ///< that arrived, failed ones included
        std::uint64_t bytes = 0; ///< content of the calls that succeeded; of copyPart() the bytes copied
        PartIndexes parts = {};  ///< indexes of the parts that uploadPart() or copyPart() stored, of all files together

        bool operator==(const Count&) const = default;
    };

    std::array<Count, allOperations.size()> operations; ///< in the order of allOperations

    const Count& operator[](Operation operation) const { return operations[static_cast<std::size_t>(operation)]; }
    Count& operator[](Operation operation) { return operations[static_cast<std::size_t>(operation)]; }

    /// Calls of all operations together.
    std::uint64_t totalCalls() const noexcept;

    bool operator==(const CallSnapshot&) const = default;
};

/// Print the operations that were called, readable for people, in the interface's order, on one line without a line
/// break: "uploadPart 1 (5.0 MiB; parts 6), copyPart 12 (60.0 MiB; parts 0-5,7-12), completeMultipartUpload 1"; "no
/// calls" when there were none.
std::ostream& operator<<(std::ostream& out, const CallSnapshot& snapshot);

/// Format a size for people, in powers of 1,024 with one decimal from KiB on: "512 B", "5.0 MiB".
std::string formatBytes(std::uint64_t bytes);

/// The interface of a client that counts, such as CountingClient and RemoteClient. A host gets it with findInterface().
class StoreCounters
{
public:
    virtual ~StoreCounters() = default;

    /// Return a copy of the counters, which start at 0 when the client is created. Any thread may call this. A call in
    /// progress is included, but not yet its bytes and its part.
    virtual CallSnapshot callSnapshot() const = 0;
};

} // namespace storage::clients
