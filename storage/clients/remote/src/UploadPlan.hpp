#pragma once

#include <storage/clients/remote/RemoteStore.hpp>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <vector>

namespace storage::clients
{

/// Where the bytes of a part of the file are.
enum class PartPlace
{
    Uploaded, ///< in the store, as a part of the upload, or on the way there
    Spooled,  ///< in the upload's spool, to be sent
    Object,   ///< unchanged; in the stored object that the new one replaces
    Source    ///< where the caller has them, to be sent; see ObjectUploader
};

/// One part of the file that becomes an object. The parts of a file are in order and have no gaps between them.
struct FilePart
{
    std::size_t index = 0;
    PartPlace place = PartPlace::Uploaded;
    std::uint64_t size = 0;   ///< bytes
    std::uint64_t offset = 0; ///< of Object, Source: where its bytes begin in the stored object, or in the source
    std::size_t number = 0;   ///< of Uploaded: of the upload's part
};

/// A contiguous range of bytes in one place.
struct PlannedBytes
{
    PartPlace place = PartPlace::Spooled; ///< not Uploaded
    std::size_t index = 0;                ///< of Spooled: the part of the file
    std::uint64_t offset = 0; ///< of Spooled: from the part's first byte; else from the object's or source's
    std::uint64_t size = 0;

    bool operator==(const PlannedBytes&) const = default;
};

/// One part of the new object; takes one request.
struct PlannedPart
{
    enum class How
    {
        Keep, ///< it was uploaded already
        Copy, ///< the store copies `bytes`, one range of the stored object
        Take, ///< the new object gets `bytes` without a copy: whole parts of the stored object
        Send  ///< the client sends `bytes`; those of the stored object and of the source are read first
    };

    std::size_t number = 0; ///< from 1, ascending
    How how = How::Keep;
    std::uint64_t size = 0;
    std::deque<PlannedBytes> bytes; ///< in order; of Keep: none

    bool operator==(const PlannedPart&) const = default;
};

/// How a file becomes an object.
struct UploadPlan
{
    std::vector<PlannedPart> parts;
    std::uint64_t size = 0; ///< bytes of the new object
    bool hasCopies = false; ///< or parts that are taken

    bool operator==(const UploadPlan&) const = default;
};

/// Plan as few requests as possible, of the kinds that the store allows, that make an object of these parts.
///
/// Adjacent unchanged parts become one copy. Bytes that the store would refuse as a part of their own because they are
/// too few, such as a small changed part or the unchanged bytes between two of them, are sent together with their
/// neighbours. If the store wants parts of equal size, or the bytes are in a source, all bytes are cut at multiples of
/// one size, which is that of the parts that were uploaded.
/// @param ends  RemoteStore::partEnds() of the stored object; empty if the store wants parts of equal size
/// @throws cloudprovider::UnsupportedOperationException when the limits of the store make an upload impossible
UploadPlan planUpload(
    const std::vector<FilePart>& file, const StoreAbilities& store, const std::vector<std::uint64_t>& ends = {});

} // namespace storage::clients
