#pragma once

#include <storage/cloudprovider/CloudExceptions.hpp>

#include <chrono>
#include <optional>
#include <string>
#include <utility>

namespace storage::clients
{

/// A temporary failure of a call that is safe to retry.
///
/// A client throws it only where both hold:
/// - The cause is temporary: the store is busy or asks to slow down (429, 5xx), or the connection could not be opened,
///   was reset or stalled.
/// - The same call with the same arguments is safe: whatever the failed call has done in the store, the retried one
///   ends as if it had been the only one.
///
/// The second condition is a promise of the client for each operation, since only the client knows its store:
///
/// | operation                             | why a retry is safe                                                     |
/// |---------------------------------------|-------------------------------------------------------------------------|
/// | getObjectInfo, validateObjectName,    | they change nothing                                                     |
/// | listObjects, getObjectRange,          |                                                                         |
/// | getObjectParts                        |                                                                         |
/// | deleteObject                          | a missing object is not an error                                        |
/// | putObject                             | the same bytes again; of several writers the last one wins              |
/// | createMultipartUpload                 | an upload whose id was lost stays open without parts; only an           |
/// |                                       | UploadInventory shows it                                                |
/// | uploadPart, copyPart                  | a part replaces an earlier one with the same Index                      |
/// | abortMultipartUpload                  | only if an upload that is gone counts as aborted after such a failure   |
/// | completeMultipartUpload               | only if, after such a failure, the client asks the store for the        |
/// |                                       | outcome before it completes again or reports a failure                  |
///
/// The last two depend on earlier calls, and a client cannot distinguish a retry from a new call. It therefore
/// remembers the ids of uploads whose outcome is unknown.
///
/// A call that works in many steps, and whose retry skips those already done, reports whether it made progress. The
/// retry budget then starts again. To guarantee that retries end, a client reports progress only for steps whose number
/// is bounded.
///
/// For a host that does not retry, it is an ordinary UnknownErrorException.
class TransientException : public cloudprovider::UnknownErrorException
{
public:
    /// @param retryAfter    how long the store asked to wait; empty if it did not say
    /// @param madeProgress  the call completed a step that a retry will skip
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

/// The response can hardly get better: retry once. The store lacks what the request needs, or is no such store at all.
///
/// It is transient nevertheless, because a proxy may have responded for a store that is being restarted.
class UnusableResponse : public TransientException
{
public:
    using TransientException::TransientException;
};

} // namespace storage::clients
