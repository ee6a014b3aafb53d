#include "FolderSnapshot.hpp"

#include "CommandError.hpp"
#include "Interrupt.hpp"

#include <fl/i18n.hpp>

#include <cstddef>

namespace cloudfs
{

namespace
{

constexpr std::size_t maxListed = 10'000;    // entries: 10 pages of a listing
constexpr std::uint64_t largeFile = 5 << 20; // bytes; larger files are sent in several parts

} // namespace

FolderSnapshot::FolderSnapshot(const CommandContext& context, const StorePath& folder)
    : m_context(context)
{
    try
    {
        context.translateErrors(folder,
            [&]
            {
                const auto entries = context.provider().listAll(folder.iri());
                while (entries->hasNext() && m_isFolder.size() < maxListed)
                {
                    interrupt::throwIfPending();
                    entries->next();
                    const fsp::FolderEntry entry = entries->getCurrent();
                    m_isFolder[fl::i18n::ustring_to_utf8(entry.name())] |= entry.isFolder();
                }
                m_isComplete = !entries->hasNext();
            });
    }
    catch (const CommandError& failure)
    {
        if (failure.code() != fsp::ErrorCode::NotFound) // possible with --folders prefix
        {
            throw;
        }
        m_isComplete = true;
    }
}

CommandContext::Condition FolderSnapshot::requireCanStore(const StorePath& file, bool replace, std::uint64_t size) const
{
    const auto entry = m_isFolder.find(file.name());
    if (!m_isComplete || (entry != m_isFolder.end() && (entry->second || !replace)))
    {
        return m_context.requireCanStore(file, replace); // throws the right error, or checks this file alone
    }
    if (replace)
    {
        return nullptr;
    }
    if (size > largeFile)
    {
        m_context.requireNoFile(file);
    }
    return m_context.requireVersion(file, "");
}

} // namespace cloudfs
