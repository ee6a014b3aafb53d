#include "CommandError.hpp"
#include "Commands.hpp"
#include "Progress.hpp"

#include <storage/clients/common/ObjectCopier.hpp>
#include <storage/clients/decorators/FindInterface.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>

#include <foundation/storage/provider/ReplacementPolicy.hpp>

#include <fmt/format.h>

#include <memory>
#include <optional>
#include <string>

namespace cloudfs
{

namespace cloudprovider = storage::cloudprovider;

namespace
{

struct Options
{
    std::string source;
    std::string destination;
    bool force = false;

    fsp::ReplacementPolicy policy() const
    {
        return force ? fsp::ReplacementPolicy::Replace : fsp::ReplacementPolicy::Fail;
    }
};

struct CheckedPaths
{
    StorePath source;
    StorePath destination;
    CommandContext::Condition condition; // of the destination
};

CheckedPaths checkedPaths(const CommandContext& context, const Options& options)
{
    const StorePath source = StorePath::parse(options.source);
    context.requireFile(source);
    const StorePath destination = StorePath::parse(options.destination).resolveFile(source.name());
    context.requireNoParentIsFile(destination);
    return {source, destination, context.requireCanStore(destination, options.force)};
}

/// Let the store copy the file. @return the tag of the version that was copied; nullopt: the store cannot copy it
std::optional<std::string> copyInStore(const CommandContext& context, const CheckedPaths& paths)
{
    auto* const copier = storage::clients::findInterface<storage::clients::ObjectCopier>(context.store());
    if (copier == nullptr)
    {
        return std::nullopt;
    }
    return context.translateErrors(paths.destination,
        [&]() -> std::optional<std::string>
        {
            try
            {
                return copier->copyObject(paths.source.key(), paths.destination.key());
            }
            catch (const cloudprovider::UnsupportedOperationException&)
            {
                return std::nullopt;
            }
        });
}

void copyBytes(const CommandContext& context, const CheckedPaths& paths, const Options& options)
{
    context.translateErrors(paths.destination,
        [&] { context.provider().copyFile(paths.source.iri(), paths.destination.iri(), options.policy()); });
    context.requireCommitted(paths.destination);
}

void copy(const CommandContext& context, const Options& options)
{
    const Progress progress(context);
    const auto paths = checkedPaths(context, options);
    const bool isSame = paths.source.iri() == paths.destination.iri(); // a file that replaces itself stays as it is
    if (!isSame && !copyInStore(context, paths))
    {
        copyBytes(context, paths, options);
    }
}

void move(const CommandContext& context, const Options& options)
{
    const Progress progress(context);
    const auto paths = checkedPaths(context, options);
    const StorePath& source = paths.source;
    if (source.iri() == paths.destination.iri())
    {
        return;
    }
    // Not the provider's move, which removes whatever the source is by then. The version is looked up before the copy
    // reads it: if another program replaces the source meanwhile, this version is not the one that would be removed.
    const auto copied = copyInStore(context, paths);
    const std::string version =
        copied ? *copied
               : context.translateErrors(source, [&] { return context.client().getObjectInfo(source.key()).tag; });
    const auto unchanged = version.empty() ? nullptr : context.requireVersion(source, version);
    if (!unchanged)
    {
        throw CommandError(source.text(), "cannot be moved, because the store reports no version of it; use cp and rm",
            fsp::ErrorCode::Unsupported);
    }
    if (!copied)
    {
        copyBytes(context, paths, options);
    }
    try
    {
        context.client().deleteObject(source.key());
    }
    catch (const cloudprovider::CloudException& exception)
    {
        throw CommandError::fromStore(
            source.text(), exception, fmt::format("was copied to {}, but not removed: ", paths.destination.text()));
    }
}

CLI::App* addCommand(CLI::App& app, Options& options, const char* name, const char* description, const char* help)
{
    auto* command = app.add_subcommand(name, description);
    command->footer(std::string(help) + concurrentFileHelp);
    command->add_option("SRC", options.source, "An existing file")->required();
    command
        ->add_option(
            "DST", options.destination, "The new path, or with a final \"/\" the folder that receives the file")
        ->required();
    command->add_flag("-f", options.force, "Replace an existing file");
    return command;
}

} // namespace

void addCopyCommands(CLI::App& app, CommandContext& context)
{
    const auto copied = std::make_shared<Options>();
    addCommand(app, *copied, "cp", "Copy a file inside the store", "")
        ->callback([&context, copied] { copy(context, *copied); });
    const auto moved = std::make_shared<Options>();
    addCommand(app, *moved, "mv", "Move a file inside the store",
        "The file is copied, then the source is removed if it is still the version that was copied.\n"
        "Otherwise both stay, and the command fails. If the URL of a bucket lacks conditional-writes=1, the\n"
        "version is only looked up just before the removal. Moving a file onto itself changes nothing.\n")
        ->callback([&context, moved] { move(context, *moved); });
}

} // namespace cloudfs
