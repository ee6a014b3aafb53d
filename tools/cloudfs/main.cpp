#include "CommandError.hpp"
#include "Commands.hpp"
#include "Diagnostics.hpp"
#include "Interrupt.hpp"
#include "MountHelper.hpp"
#include "StandardOutput.hpp"
#include "Text.hpp"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <exception>
#include <fcntl.h>
#include <sstream>
#include <string>
#include <string_view>
#include <unistd.h>
#include <vector>

namespace
{

using cloudfs::CommandContext;
using storage::cloudprovider::FolderPolicy;

constexpr int exitFailed = 1;
constexpr int exitUsage = 2;
constexpr int exitBrokenPipe = 128 + 13; // as if SIGPIPE had ended the program

void addGlobalOptions(CLI::App& app, CommandContext& context)
{
    app.add_option("--store", context.storeUrl, "The store to use, see below")->type_name("URL")->capture_default_str();
    app.add_option_function<std::string>(
           "--folders",
           [&context](const std::string& name)
           {
               if (name != "marker" && name != "prefix")
               {
                   throw CLI::ValidationError("--folders", "must be marker or prefix");
               }
               context.folderPolicy = name == "marker" ? FolderPolicy::MarkerObjects : FolderPolicy::KeyPrefixes;
           },
           "How the store represents folders, see below")
        ->type_name("marker|prefix")
        ->default_str("marker");
    app.add_flag("-v", context.verbose, "Log every operation to standard error, then the numbers of store calls");
}

constexpr const char* globalOptionForms = // at most 100 columns
    "Stores:\n"
    "  local:DIR       A local folder, which put and mkdir create if it is missing\n"
    "  local:          The default folder: $XDG_DATA_HOME/cloudfs, or ~/.local/share/cloudfs\n"
    "  memory:         A store in memory: empty, and gone when the command ends\n"
    "  s3://BUCKET/PREFIX?endpoint=URL&region=REGION&path-style=1\n"
    "                  A bucket of an S3-compatible store, or a folder in it\n"
    "  azure://ACCOUNT/CONTAINER/PREFIX?endpoint=URL\n"
    "                  A container of Azure Blob Storage, or a folder in it\n"
    "\n"
    "Folders:\n"
    "  marker          Each folder is an object of its own, so it may be empty\n"
    "  prefix          A folder exists only while it contains files";

/// Describe an argument that the parser did not understand.
///
/// @param typed  all arguments: of the flag "-Rl=3", the parser reports "-=3"
std::string describeUnknown(const CLI::App& app, const std::string& argument, const std::vector<std::string>& typed)
{
    if (argument.starts_with("-="))
    {
        const auto isFlag = [value = argument.substr(1)](const std::string& text)
        {
            const std::size_t end = std::min(text.find('='), text.size());
            return end > 1 && text[0] == '-' && text[1] != '-' && text.substr(end) == value;
        };
        const auto flag = std::find_if(typed.begin(), typed.end(), isFlag);
        if (flag != typed.end())
        {
            return fmt::format("-{} takes no value", (*flag)[flag->find('=') - 1]);
        }
    }
    if (argument.starts_with('-'))
    {
        return "unknown option: " + argument;
    }
    const CLI::App* command = &app;
    while (!command->get_subcommands().empty())
    {
        command = command->get_subcommands().front();
    }
    return (command->get_require_subcommand_min() > 0 ? "unknown command: " : "unexpected argument: ") + argument;
}

std::string describe(const CLI::ParseError& error)
{
    std::string text = error.what();
    if (text == "A subcommand is required")
    {
        return "a command is required";
    }
    if (text.ends_with(" missing")) // "--store: 1 required URL missing"
    {
        return text.substr(0, text.find(':')) + ": a value is required";
    }
    constexpr std::string_view conversion = "Could not convert: "; // "--files = x": values are checked, so it is a flag
    if (text.starts_with(conversion))
    {
        return text.substr(conversion.size(), text.find(" = ") - conversion.size()) + " takes no value";
    }
    return text;
}

/// Return the program's name and the commands that were recognised: "cloudfs uploads list".
std::string recognisedCommands(const CLI::App& app)
{
    std::string names = app.get_name();
    for (const CLI::App* command : app.get_subcommands())
    {
        names += ' ' + recognisedCommands(*command);
    }
    return names;
}

/// Return the command whose help explains wrong usage. The options of all commands are in the program's own help.
std::string helpCommand(const CLI::App& app, const std::string& reason)
{
    const bool isGlobal = app.get_option_no_throw(reason.substr(0, reason.find(':'))) != nullptr;
    return (isGlobal ? app.get_name() : recognisedCommands(app)) + " --help";
}

int run(int argc, char** argv)
{
    CommandContext context;
    CLI::App app("Files and folders in an object store.\n"
                 "Paths start at the root of the store; the leading \"/\" may be omitted. Names are literal, without\n"
                 "escapes. An address such as cloudfs://store/a%20b also works; its escapes are decoded.\n",
        "cloudfs");
    app.require_subcommand(1);
    app.fallthrough();
    app.set_version_flag("--version", "cloudfs " CLOUDFS_VERSION, "Print the version and exit");
    addGlobalOptions(app, context);
    app.parse_complete_callback(
        [&]
        {
            // A damaged store cannot be opened, no store is needed to check an endpoint, and a mount needs another one.
            if (!app.got_subcommand("check") && !app.got_subcommand("check-endpoint") && !app.got_subcommand("mount"))
            {
                context.open(app.got_subcommand("put") || app.got_subcommand("mkdir"));
            }
        });
    addListCommands(app, context);
    addFolderCommands(app, context);
    addPutCommand(app, context);
    addGetCommands(app, context);
    addEditCommands(app, context);
    addCopyCommands(app, context);
    addUploadCommands(app, context);
    addCheckCommand(app, context);
    addCheckEndpointCommand(app, context);
    addMountCommand(app, context);
    app.footer(globalOptionForms); // after the commands, or they would inherit it
    std::vector<std::string> arguments(argv + 1, argv + argc);
    arguments = cloudfs::fromMountHelper(argv[0], arguments).value_or(arguments);
    try
    {
        app.parse(std::vector<std::string>(arguments.rbegin(), arguments.rend()));
        context.printCounters();
        return context.hasFailed() ? exitFailed : EXIT_SUCCESS;
    }
    catch (const CLI::Success& request)
    {
        std::ostringstream text; // the help or the version
        app.exit(request, text);
        cloudfs::StandardOutput().write(text.view());
        return EXIT_SUCCESS;
    }
    catch (const CLI::ParseError& error)
    {
        const auto unknown = app.remaining();
        const std::string reason = unknown.empty() ? describe(error) : describeUnknown(app, unknown.front(), arguments);
        cloudfs::diagnostics::printLine(
            fmt::format("{}; see {}", cloudfs::text::printable(reason), helpCommand(app, reason)));
        return exitUsage;
    }
}

/// Open standard input, output and error on /dev/null if the caller has closed them, so that no other file gets their
/// descriptors. Reads and writes still fail, because each is opened for the wrong direction.
void openClosedStandardStreams()
{
    for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
    {
        if (::fcntl(stream, F_GETFD) < 0)
        {
            [[maybe_unused]] const int lowestFree = ::open("/dev/null", stream == STDIN_FILENO ? O_WRONLY : O_RDONLY);
        }
    }
}

int reportError(const char* message)
{
    if (cloudfs::interrupt::isPending()) // then the interrupt is the cause of every failure
    {
        cloudfs::diagnostics::printLine("interrupted");
        return cloudfs::interrupt::exitStatus();
    }
    cloudfs::diagnostics::printLine(message);
    return exitFailed;
}

} // namespace

int main(int argc, char** argv)
{
    try
    {
        openClosedStandardStreams();
        cloudfs::interrupt::install();
        return run(argc, argv);
    }
    catch (const cloudfs::interrupt::Interrupted&)
    {
        return reportError("");
    }
    catch (const cloudfs::StandardOutput::BrokenPipe&)
    {
        return exitBrokenPipe;
    }
    catch (const cloudfs::CommandError& error)
    {
        return reportError(error.what());
    }
    catch (const std::exception& exception)
    {
        return reportError(cloudfs::text::printable(exception.what()).c_str());
    }
}
