#include "FolderSnapshot.hpp"

#include "CommandContext.hpp"
#include "CommandError.hpp"
#include "Interrupt.hpp"

#include <fl/i18n.hpp>

#include <cstddef>

namespace cloudfs
{

namespace
{

constexpr std::size_t mostListed = 10'000;   // entries; a page of a listing has 1,000
constexpr std::uint64_t largeFile = 5 << 20; // bytes; what has more is sent in several parts

} // namespace

FolderSnapshot::FolderSnapshot(const CommandContext& context, const StorePath& folder)
    : m_context(context)
{
    context.translateErrors(folder,
        [&]
        {
            if (!context.provider().folderExists(folder.iri())) // as with --folders prefix, until something is in it
            {
                m_isKnown = true;
                return;
            }
            const auto entries = context.provider().listAll(folder.iri());
            while (entries->hasNext() && m_isFolder.size() < mostListed)
            {
                interrupt::throwIfPending();
                entries->next();
                const fsp::FolderEntry entry = entries->getCurrent();
                m_isFolder[fl::i18n::ustring_to_utf8(entry.name())] |= entry.isFolder();
            }
            m_isKnown = !entries->hasNext();
        });
}

void FolderSnapshot::requireCanStore(const StorePath& file, bool replace, std::uint64_t size) const
{
    const auto entry = m_isFolder.find(file.name());
    if (!m_isKnown || (entry != m_isFolder.end() && (entry->second || !replace)))
    {
        m_context.requireCanStore(file, replace); // which knows what to say
    }
    else if (!replace && size > largeFile)
    {
        m_context.requireNoFile(file);
    }
}

} // namespace cloudfs
