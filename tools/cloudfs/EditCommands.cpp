#include "Commands.hpp"
#include "Transfer.hpp"
#include "Validators.hpp"

#include <cstdint>
#include <memory>
#include <string>

namespace cloudfs
{

namespace
{

void edit(const CommandContext& context, const std::string& argument, std::uint64_t offset,
    fsp::ByteStreamWritePosition position)
{
    const StorePath path = StorePath::parse(argument);
    LocalSource source = LocalSource::standardInput();
    Progress progress(context, !source.isTerminal());
    context.requireFile(path);
    upload(context, path,
        {fsp::ByteStreamReadAccess::None, fsp::ByteStreamCreate::MustExist, fsp::ByteStreamTruncate::Keep, position},
        offset, source, progress);
}

} // namespace

void addEditCommands(CLI::App& app, CommandContext& context)
{
    const auto path = std::make_shared<std::string>();
    const auto offset = std::make_shared<std::uint64_t>(0);
    constexpr std::uint64_t maxOffset = 5ULL << 40; // no store accepts larger objects, and a gap is stored as zeros

    auto* write = app.add_subcommand("write", "Overwrite part of an existing file with standard input");
    write->add_option("PATH", *path, "An existing file")->required();
    write->add_option("--offset", *offset, "Where to write, from the file's start; a gap beyond its end reads as zeros")
        ->required()
        ->check(numberBetween(0, maxOffset))
        ->type_name("BYTES");
    write->callback(
        [&context, path, offset] { edit(context, *path, *offset, fsp::ByteStreamWritePosition::AtOffset); });

    auto* append = app.add_subcommand("append", "Append standard input to an existing file");
    append->add_option("PATH", *path, "An existing file")->required();
    append->callback([&context, path] { edit(context, *path, 0, fsp::ByteStreamWritePosition::Append); });
}

} // namespace cloudfs
