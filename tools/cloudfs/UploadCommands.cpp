#include "CommandError.hpp"
#include "Commands.hpp"
#include "StandardOutput.hpp"
#include "Text.hpp"
#include "Validators.hpp"

#include <storage/clients/common/UploadInventory.hpp>
#include <storage/clients/decorators/FindInterface.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>

#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <fmt/format.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace cloudfs
{

namespace
{

using storage::clients::PendingUpload;

std::vector<PendingUpload> uploadsOlderThan(const CommandContext& context, std::int64_t seconds)
{
    auto* const inventory = storage::clients::findInterface<storage::clients::UploadInventory>(context.store());
    if (inventory == nullptr)
    {
        throw CommandError(
            context.storeForMessages(), "this store cannot list open uploads", fsp::ErrorCode::Unsupported);
    }
    std::vector<PendingUpload> uploads = inventory->pendingUploads();
    const auto cutoff = boost::posix_time::microsec_clock::universal_time() - boost::posix_time::seconds(seconds);
    std::erase_if(uploads, [&](const PendingUpload& upload) { return upload.created > cutoff; });
    return uploads;
}

void list(const CommandContext& context, std::int64_t seconds)
{
    StandardOutput output;
    for (const PendingUpload& upload : uploadsOlderThan(context, seconds))
    {
        output.line(fmt::format("{}  {}  /{}", text::fullTime(upload.created), text::printable(upload.uploadId),
            text::printable(upload.key)));
    }
    output.flush();
}

void abort(const CommandContext& context, std::int64_t seconds)
{
    StandardOutput output;
    for (const PendingUpload& upload : uploadsOlderThan(context, seconds))
    {
        try
        {
            context.store().abortMultipartUpload(upload.key, upload.uploadId);
        }
        catch (const storage::cloudprovider::ResourceNotFoundException&)
        {
            continue; // it was completed or aborted meanwhile
        }
        output.line(fmt::format("aborted  {}  /{}", text::printable(upload.uploadId), text::printable(upload.key)));
        output.flush(); // now: the next one may fail
    }
}

CLI::Option* addAge(CLI::App& command, std::int64_t& seconds)
{
    return command
        .add_option("--older-than", seconds, "Only uploads older than this: a number and a unit, s, m, h or d")
        ->type_name("AGE")
        ->transform(ageInSeconds());
}

/// Run a command and translate what the store throws into a CommandError about the store.
void run(const CommandContext& context, std::int64_t seconds, void (*command)(const CommandContext&, std::int64_t))
{
    try
    {
        command(context, seconds);
    }
    catch (const storage::cloudprovider::CloudException& exception)
    {
        throw CommandError::fromStore(context.storeForMessages(), exception);
    }
}

} // namespace

void addUploadCommands(CLI::App& app, CommandContext& context)
{
    auto* uploads = app.add_subcommand("uploads", "List or abort multipart uploads that a crash left open");
    uploads->require_subcommand(1);
    uploads->footer("Uploads in progress are open, too. Choose an age that is longer than any transfer takes.");
    const auto age = std::make_shared<std::int64_t>(0);

    auto* listed = uploads->add_subcommand("list", "List open uploads: start time, upload id and path");
    addAge(*listed, *age);
    listed->callback([&context, age] { run(context, *age, list); });

    auto* aborted = uploads->add_subcommand("abort", "Abort open uploads and delete the parts already sent");
    addAge(*aborted, *age)->required();
    aborted->callback([&context, age] { run(context, *age, abort); });
}

} // namespace cloudfs
