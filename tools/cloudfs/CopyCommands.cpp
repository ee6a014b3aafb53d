#include "CommandError.hpp"
#include "Commands.hpp"
#include "Progress.hpp"

#include <foundation/storage/provider/ReplacementPolicy.hpp>

#include <memory>
#include <string>

namespace cloudfs
{

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

struct SourceAndDestination
{
    StorePath source;
    StorePath destination;
};

SourceAndDestination checkedPaths(const CommandContext& context, const Options& options)
{
    const StorePath source = StorePath::parse(options.source);
    context.requireFile(source);
    const StorePath destination = StorePath::parse(options.destination).resolveFile(source.name());
    context.requireNoParentIsFile(destination);
    context.requireCanStore(destination, options.force);
    return {source, destination};
}

void copy(const CommandContext& context, const Options& options)
{
    const Progress progress(context);
    const auto [source, destination] = checkedPaths(context, options);
    if (source.iri() == destination.iri())
    {
        return; // a file that replaces itself stays as it is
    }
    context.translateErrors(destination,
        [&, from = source.iri(), to = destination.iri()] { context.provider().copyFile(from, to, options.policy()); });
    context.requireCommitted(destination);
}

void move(const CommandContext& context, const Options& options)
{
    const Progress progress(context);
    const auto [source, destination] = checkedPaths(context, options);
    context.translateErrors(destination,
        [&, from = source.iri(), to = destination.iri()] { context.provider().moveFile(from, to, options.policy()); });
    context.requireCommitted(destination);
}

CLI::App* addCommand(CLI::App& app, Options& options, const char* name, const char* description)
{
    auto* command = app.add_subcommand(name, description);
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
    addCommand(app, *copied, "cp", "Copy a file inside the store")
        ->callback([&context, copied] { copy(context, *copied); });
    const auto moved = std::make_shared<Options>();
    addCommand(app, *moved, "mv", "Move a file inside the store; moving a file onto itself changes nothing")
        ->callback([&context, moved] { move(context, *moved); });
}

} // namespace cloudfs
