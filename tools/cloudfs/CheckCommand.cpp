#include "CommandError.hpp"
#include "Commands.hpp"
#include "Interrupt.hpp"
#include "StandardOutput.hpp"
#include "Text.hpp"

#include <storage/clients/local/CheckLocalStore.hpp>
#include <storage/clients/stores/OpenStore.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>

#include <fmt/format.h>

#include <memory>
#include <string>

namespace cloudfs
{

namespace
{

using storage::clients::CheckOptions;
using storage::clients::CheckResult;
using storage::clients::Damage;

std::string describe(const Damage& damage)
{
    const std::string name = damage.kind == Damage::Kind::Index    ? "the index"
                             : damage.kind == Damage::Kind::Upload ? "upload of /" + text::printable(damage.key)
                                                                   : '/' + text::printable(damage.key);
    return fmt::format("damaged  {}: {}{}{}", name, text::printable(damage.reason), damage.repair.empty() ? "" : "; ",
        text::printable(damage.repair));
}

void check(CommandContext& context, bool repair)
{
    StandardOutput output;
    CheckOptions options;
    options.repair = repair;
    options.progress = interrupt::throwIfPending;
    options.interrupted = interrupt::isPending;
    options.report = [&output](const Damage& damage)
    {
        output.line(describe(damage));
        output.flush(); // now: a repair may take long
    };
    try
    {
        const auto directory = storage::clients::localStoreDirectory(context.storeUrl);
        if (!directory)
        {
            throw CommandError(
                context.storeForMessages(), "only local stores can be checked", fsp::ErrorCode::Unsupported);
        }
        const CheckResult result = checkLocalStore(*directory, options);
        output.line(fmt::format("{} objects, {} bytes: {} damaged, {} repaired", result.objects, result.bytes,
            result.damaged, result.repaired));
        if (result.withoutChecksum > 0)
        {
            output.line(fmt::format("{} objects were stored by an older version of this program: only their sizes "
                                    "could be checked",
                result.withoutChecksum));
        }
        output.flush();
        if (result.repaired < result.damaged)
        {
            context.markFailed();
        }
    }
    catch (const storage::cloudprovider::CloudException& exception)
    {
        throw CommandError::fromStore(context.storeForMessages(), exception);
    }
}

} // namespace

void addCheckCommand(CLI::App& app, CommandContext& context)
{
    auto* command = app.add_subcommand("check", "Read everything in a local store and compare it with its checksums");
    command->footer("The exit status is 1 if damage was found and not repaired. A repair removes what is damaged and\n"
                    "keeps what was found of it in the folder \"damaged\" of the store. Nobody else may use the store\n"
                    "while a damaged index is repaired.");
    const auto repair = std::make_shared<bool>(false);
    command->add_flag("--repair", *repair, "Remove what is damaged, and abort damaged uploads");
    command->callback([&context, repair] { check(context, *repair); });
}

} // namespace cloudfs
