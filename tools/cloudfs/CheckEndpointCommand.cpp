#include "CommandError.hpp"
#include "Commands.hpp"
#include "Diagnostics.hpp"
#include "Interrupt.hpp"
#include "StandardOutput.hpp"
#include "Text.hpp"

#include <storage/clients/s3/EndpointProbe.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>
#include <storage/cloudprovider/Logger.hpp>

#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/split.hpp>
#include <fmt/format.h>

#include <string>
#include <utility>
#include <vector>

namespace cloudfs
{

namespace
{

using storage::clients::s3::EndpointCapabilities;

/// Replace the parameters for the endpoint's capabilities in the store's URL.
std::string withCapabilities(const std::string& url, const EndpointCapabilities& can)
{
    const std::pair<std::string, bool> capabilities[] = {{"copies-any-key", can.copiesAnyKey},
        {"equal-parts", can.equalParts}, {"conditional-copies", can.conditionalCopies},
        {"conditional-completion", can.conditionalCompletion}, {"conditional-writes", can.conditionalWrites}};
    const std::size_t question = url.find('?');
    std::vector<std::string> parameters;
    if (question != std::string::npos)
    {
        boost::algorithm::split(parameters, url.substr(question + 1), boost::algorithm::is_any_of("&"));
    }
    for (const auto& [name, isSet] : capabilities)
    {
        std::erase_if(
            parameters, [&, name = name](const auto& parameter) { return parameter.starts_with(name + '='); });
        isSet ? parameters.push_back(name + "=1") : void();
    }
    return fmt::format("{}{}{}", url.substr(0, question), parameters.empty() ? "" : "?", fmt::join(parameters, "&"));
}

void checkEndpoint(CommandContext& context)
{
    diagnostics::install(context.verbose);
    if (!context.verbose) // the table says what the warnings would
    {
        storage::cloudprovider::getLogger().setEnabledSeverities(0);
    }
    StandardOutput output;
    const auto print = [&](const std::string& name, const std::string& result)
    {
        output.line(fmt::format("{:<35}{}", name, text::printable(result)));
        output.flush(); // now: the next probe may take long
    };
    try
    {
        if (!context.storeUrl.starts_with("s3:"))
        {
            throw CommandError(context.storeForMessages(),
                "there is nothing to check: only the endpoint of a bucket has differences",
                fsp::ErrorCode::Unsupported);
        }
        auto settings = storage::clients::s3::parseS3Url(context.storeUrl);
        settings.interrupted = interrupt::isPending;
        const auto report = probeEndpoint(settings, [&](const auto& feature) { print(feature.name, feature.result); });
        for (const std::string& leftover : report.leftovers)
        {
            diagnostics::printLine("could not be removed: " + text::printable(leftover));
        }
        interrupt::throwIfPending();
        print("usable", report.isUsable ? "yes" : "no");
        if (report.isUsable)
        {
            output.line(fmt::format("\n--store '{}'", withCapabilities(context.storeUrl, report.capabilities)));
        }
        else
        {
            context.markFailed();
        }
        output.flush();
    }
    catch (const storage::cloudprovider::CloudException& exception)
    {
        throw CommandError::fromStore(context.storeForMessages(), exception);
    }
}

} // namespace

void addCheckEndpointCommand(CLI::App& app, CommandContext& context)
{
    auto* command = app.add_subcommand(
        "check-endpoint", "Find out what the endpoint of a bucket can do, and which parameters its URL should have");
    command->footer(
        "Writes about 25 MiB under a new name in the bucket, and removes it. The last line is the store's URL\n"
        "with the parameters. The exit status is 1 if the endpoint cannot be used.");
    command->callback([&context] { checkEndpoint(context); });
}

} // namespace cloudfs
