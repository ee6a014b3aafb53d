#pragma once

#include <storage/cloudprovider/CloudExceptions.hpp>

#include <chrono>
#include <optional>
#include <string>
#include <utility>

namespace storage::clients
{

/// A failure that may pass by itself, of a call that may be made again.
///
/// A client throws it only where both hold:
/// - Time may cure it: the store is busy or asks to slow down (429, 5xx), or the connection could not be opened, was
///   reset or stalled.
/// - The same call with the same arguments is safe: whatever the failed one has done in the store, the repeated one
///   ends as if it had been the only one.
///
/// The second is the client's word for each operation, since it alone knows its store:
///
/// | operation                             | why it may be made again                                                |
/// |---------------------------------------|-------------------------------------------------------------------------|
/// | getObjectInfo, validateObjectName,    | they change nothing                                                     |
/// | listObjects, getObjectRange,          |                                                                         |
/// | getObjectParts                        |                                                                         |
/// | deleteObject                          | a missing object is no failure                                          |
/// | putObject                             | the same bytes again; of several writers the last one wins              |
/// | createMultipartUpload                 | an upload whose identifier was lost stays open without parts; nothing   |
/// |                                       | but an UploadInventory shows it                                         |
/// | uploadPart, copyPart                  | the same Index again replaces                                           |
/// | abortMultipartUpload                  | only if an upload that is gone counts as aborted after such a failure   |
/// | completeMultipartUpload               | only if, after such a failure, the client asks the store what has       |
/// |                                       | become of it before it completes again or reports a failure             |
///
/// The last two depend on what went before, and a client cannot tell a repeated call from a new one: it remembers the
/// identifiers of uploads whose end it could not see.
///
/// A call that does its work in many steps, and need not repeat those that are done, says whether it got further than
/// before: whoever repeats it then begins to be patient anew. Nothing may be got further with forever, so a client says
/// so only of steps whose number is fixed.
///
/// To a host that does not repeat calls it is an UnknownErrorException like any other.
class TransientException : public cloudprovider::UnknownErrorException
{
public:
    /// @param retryAfter  how long the store asked to be left alone; empty: it did not say
    /// @param madeProgress  the call has done something for good that the next one need not do
    explicit TransientException(const std::string& message, std::optional<std::string> detail = std::nullopt,
        std::optional<std::chrono::milliseconds> retryAfter = std::nullopt, bool madeProgress = false)
        : UnknownErrorException(message, std::move(detail))
        , m_retryAfter(retryAfter)
        , m_madeProgress(madeProgress)
    {
    }

    std::optional<std::chrono::milliseconds> retryAfter() const noexcept { return m_retryAfter; }
    bool madeProgress() const noexcept { return m_madeProgress; }

private:
    std::optional<std::chrono::milliseconds> m_retryAfter;
    bool m_madeProgress;
};

} // namespace storage::clients
