#include "StoreFailures.hpp"

#include <storage/clients/http/ResponseFields.hpp>
#include <storage/clients/http/XmlDocument.hpp>

#include <algorithm>
#include <array>
#include <string_view>

namespace storage::clients::azure
{

namespace
{

using Meaning = FailureMeaning;

using Row = KnownFailure;

constexpr std::string_view leased = "somebody else holds a lease on the blob; release or break it";
constexpr std::string_view notBlockIds = "the blob, or an unfinished upload to its name, has block ids of another size";
constexpr std::string_view notBlocks = "only block blobs can be written; copy the file to another name";

constexpr std::array rows{
    Row{"BlobNotFound", Meaning::NotFound, ""},
    Row{"ResourceNotFound", Meaning::NotFound, ""},
    Row{"ContainerNotFound", Meaning::BadLocation, "there is no such container; check its name, or create it first"},
    Row{"ContainerBeingDeleted", Meaning::BadLocation, "the container is being deleted"},
    Row{"ContainerDisabled", Meaning::Denied, ""},
    Row{"AccountIsDisabled", Meaning::Denied, ""},
    Row{"InvalidResourceName", Meaning::BadLocation, "the store does not accept this name"},
    Row{"InvalidUri", Meaning::BadLocation, "the store does not accept this name"},
    Row{"OutOfRangeInput", Meaning::BadLocation, "the store does not accept this name"},
    Row{"AuthenticationFailed", Meaning::ClockSkew, "check the key, the signature or the token, and the account; "},
    Row{"InvalidAuthenticationInfo", Meaning::BadCredentials, "the token has expired or is not for this store"},
    Row{"NoAuthenticationInformation", Meaning::BadCredentials, ""},
    Row{"PublicAccessNotPermitted", Meaning::BadCredentials, ""},
    Row{"AuthorizationFailure", Meaning::Denied, "check the account's key, and which networks it accepts"},
    Row{"AuthorizationPermissionMismatch", Meaning::Denied,
        "the signature or the identity's role does not include this operation"},
    Row{"AuthorizationResourceTypeMismatch", Meaning::Denied, "the signature does not include this kind of resource"},
    Row{"AuthorizationSourceIPMismatch", Meaning::Denied, "the signature is not for this machine's address"},
    Row{"BlobImmutableDueToPolicy", Meaning::Denied, "a policy keeps the blob from being changed"},
    Row{"BlobArchived", Meaning::Other, "the blob is archived; move it to another tier first"},
    Row{"BlobBeingRehydrated", Meaning::Other, "the blob is still being moved out of the archive"},
    Row{"SnapshotsPresent", Meaning::Other, "the blob has snapshots; delete them first"},
    Row{"InvalidBlobType", Meaning::Other, notBlocks},
    Row{"InvalidBlockList", Meaning::Other,
        "somebody else has written the blob, and with that the store has dropped the blocks that were sent; or the "
        "list of "
        "blocks was damaged in transit"},
    Row{"InvalidBlobOrBlock", Meaning::Other, notBlockIds},
    Row{"BlockCountExceedsLimit", Meaning::Other,
        "too many blocks were sent that belong to no blob; the store drops them after a week"},
    Row{"LeaseIdMissing", Meaning::Other, leased},
    Row{"LeaseAlreadyPresent", Meaning::Other, leased},
    Row{"ConditionNotMet", Meaning::Changed, ""},
    Row{"SourceConditionNotMet", Meaning::Changed, ""},
    Row{"TargetConditionNotMet", Meaning::Changed, ""},
    Row{"BlobAlreadyExists", Meaning::Changed, ""},
    Row{"Md5Mismatch", Meaning::Transient, "the bytes were corrupted in transit"},
    Row{"PendingCopyOperation", Meaning::Transient, ""},
    Row{"ServerBusy", Meaning::TooMany, ""},
    Row{"OperationTimedOut", Meaning::Transient, ""},
    Row{"InternalError", Meaning::Transient, ""},
    Row{"APINotImplemented", Meaning::NotSupported, ""}, // an emulator's, with the status 500
    Row{"UnsupportedHeader", Meaning::Other, ""},
    Row{"UnsupportedQueryParameter", Meaning::Other, ""},
    Row{"UnsupportedHttpVerb", Meaning::NotSupported, ""},
    Row{"FeatureVersionMismatch", Meaning::NotSupported, ""},
};

Row rowFor(int status, const std::string& code)
{
    if (code.empty() && status < 500 && meaningOf(status) != Meaning::Transient)
    {
        return {"", Meaning::BadLocation, "this is not the response of an Azure store; check the endpoint"};
    }
    if (code == "CannotVerifyCopySource") // its status is that of reading the source
    {
        return {"", meaningOf(status), "the store could not read the source"};
    }
    const auto* const row = std::ranges::find(rows, code, &Row::code);
    return row != rows.end() ? *row : Row{"", status == 409 ? Meaning::Other : meaningOf(status), ""};
}

} // namespace

std::string errorCode(const HttpResponse& response)
{
    const std::string* const field = response.headers.find("x-ms-error-code");
    return field == nullptr ? textOf(XmlDocument(response.body).root(), "Code") : *field;
}

void throwErrorResponse(const FailureContext& context, const HttpResponse& response)
{
    const std::string code = errorCode(response);
    const Row row = rowFor(response.status, code);
    const std::string hint = hintFor(row, context, response);
    const std::string message = textOf(XmlDocument(response.body).root(), "Message");
    std::string detail = describe(context, response, {code, message.substr(0, message.find('\n')), ""});
    detail += row.meaning == Meaning::BadLocation ? "; container \"" + context.container + "\"" : "";
    detail += hint.empty() ? "" : "; " + hint;
    throwFailure(meaningOf(row, context), detail, response);
}

} // namespace storage::clients::azure
