#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace storage::clients::s3
{

constexpr std::size_t mostParts = 10'000;            ///< of one object
constexpr std::size_t leastPartSize = 5 << 20;       ///< bytes; of every part but the last
constexpr std::uint64_t largestObject = 5ULL << 40U; ///< bytes
constexpr std::uint64_t largestCopy = 5ULL << 30U;   ///< bytes; of one part

/// What an endpoint allows.
struct UploadLimits
{
    std::uint64_t leastPart = leastPartSize; ///< bytes of every part but the last; at least 1
    std::size_t mostParts = s3::mostParts;
    std::uint64_t largestObject = s3::largestObject; ///< bytes
    std::uint64_t largestCopy = s3::largestCopy; ///< bytes that are copied as one part, 2 * leastPart at least; 0: none
    bool equalParts = false;                     ///< all parts but the last must have one size
    bool pinnedCopies = false;                   ///< a copy is refused when the object is another version
};

/// Where the bytes of a part of the file are.
enum class PartPlace
{
    Store,  ///< sent; the store has them as part Index + 1
    Client, ///< held here, to be sent
    Object  ///< unchanged; in the stored object that the new one replaces
};

/// One part of the file that becomes an object. They stand in order and without gaps.
struct FilePart
{
    std::size_t index = 0;
    PartPlace place = PartPlace::Store;
    std::uint64_t size = 0;   ///< bytes
    std::uint64_t offset = 0; ///< of Object: where its bytes begin in the stored object
};

/// Bytes of one place in a row.
struct PlannedBytes
{
    PartPlace place = PartPlace::Client; ///< Client or Object
    std::size_t index = 0;               ///< of Client: the part of the file
    std::uint64_t offset = 0;            ///< of Client: from the part's first byte; of Object: from the object's
    std::uint64_t size = 0;

    bool operator==(const PlannedBytes&) const = default;
};

/// One part of the new object, by one request.
struct PlannedPart
{
    enum class How
    {
        Keep, ///< it was sent already
        Copy, ///< the store copies `bytes`, one range of the stored object
        Send  ///< `bytes` go over the wire; what is of the stored object is read before
    };

    std::size_t number = 0; ///< from 1, ascending
    How how = How::Keep;
    std::uint64_t size = 0;
    std::vector<PlannedBytes> bytes; ///< in order; of Keep: none

    bool operator==(const PlannedPart&) const = default;
};

/// How a file becomes an object.
struct UploadPlan
{
    std::vector<PlannedPart> parts;
    std::uint64_t size = 0;  ///< bytes of the new object
    bool looksAgain = false; ///< the object's version must be asked for after the last copy: nothing pinned the copies
};

/// Plan few requests, of kinds that an endpoint allows, for a file of these parts.
///
/// Unchanged neighbours become one copy. What the store would refuse as too small, a changed part of a few bytes or the
/// unchanged bytes between two of them, is sent together with what stands beside it.
/// @throws cloudprovider::UnsupportedOperationException when no list of requests keeps to the limits
UploadPlan planUpload(const std::vector<FilePart>& file, const UploadLimits& limits);

} // namespace storage::clients::s3
