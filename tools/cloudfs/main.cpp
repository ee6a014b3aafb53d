#include "CommandError.hpp"
#include "Commands.hpp"
#include "Interrupt.hpp"
#include "StandardOutput.hpp"
#include "Text.hpp"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <map>
#include <string>

namespace
{

using cloudfs::CommandContext;
using storage::cloudprovider::FolderPolicy;

constexpr int operationFailed = 1;
constexpr int wrongUsage = 2;
constexpr int brokenPipe = 128 + 13; // as if SIGPIPE had ended the program

void addGlobalOptions(CLI::App& app, CommandContext& context)
{
    app.add_option("--store", context.storeUrl,
           "local:DIR (local: is $XDG_DATA_HOME/cloudfs), memory: or "
           "s3://BUCKET?endpoint=URL&region=REGION&path-style=1")
        ->capture_default_str();
    app.add_option("--folders", context.folderPolicy,
           "marker: folders are objects of their own; prefix: folders are what the files imply")
        ->transform(CLI::CheckedTransformer(std::map<std::string, FolderPolicy>{{"marker", FolderPolicy::MarkerObjects},
                                                {"prefix", FolderPolicy::KeyPrefixes}})
                        .description("marker|prefix"))
        ->default_str("marker");
    app.add_flag("-v", context.verbose, "Log to standard error, and tell in the end what the store was asked");
}

int run(int argc, char** argv)
{
    CommandContext context;
    CLI::App app("Files and folders in an object store.\n"
                 "Paths begin at the root of the store; the leading \"/\" may be left out. Names are literal, without\n"
                 "escapes; an address such as cloudfs://store/a%20b is understood too.",
        "cloudfs");
    app.require_subcommand(1);
    app.fallthrough();
    addGlobalOptions(app, context);
    app.parse_complete_callback([&context] { context.open(); });
    addListCommands(app, context);
    addFolderCommands(app, context);
    addPutCommand(app, context);
    addGetCommands(app, context);
    addEditCommands(app, context);
    addCopyCommands(app, context);
    addUploadCommands(app, context);
    try
    {
        app.parse(argc, argv);
        context.printCounters();
        return context.hasFailed() ? operationFailed : EXIT_SUCCESS;
    }
    catch (const CLI::Success& request)
    {
        return app.exit(request); // prints the help
    }
    catch (const CLI::ParseError& error)
    {
        const auto unknown = app.remaining();
        const std::string reason = unknown.empty() ? error.what() : "not understood: " + unknown.front();
        fmt::print(stderr, "cloudfs: {}; see cloudfs --help\n", cloudfs::text::printable(reason));
        return wrongUsage;
    }
}

int failed(const char* message)
{
    if (cloudfs::interrupt::isPending()) // whatever failed failed for this reason
    {
        fmt::print(stderr, "cloudfs: interrupted\n");
        return cloudfs::interrupt::exitStatus();
    }
    fmt::print(stderr, "cloudfs: {}\n", message);
    return operationFailed;
}

} // namespace

int main(int argc, char** argv)
{
    try
    {
        cloudfs::interrupt::install();
        return run(argc, argv);
    }
    catch (const cloudfs::interrupt::Interrupted&)
    {
        return failed("");
    }
    catch (const cloudfs::StandardOutput::BrokenPipe&)
    {
        return brokenPipe;
    }
    catch (const cloudfs::CommandError& error)
    {
        return failed(error.what());
    }
    catch (const std::exception& exception)
    {
        return failed(cloudfs::text::printable(exception.what()).c_str());
    }
}
