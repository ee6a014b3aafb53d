#include "Occupants.hpp"

#include "Failure.hpp"
#include "Interrupt.hpp"
#include "Session.hpp"

#include <fl/i18n.hpp>

#include <cstddef>

namespace cloudfs
{

namespace
{

constexpr std::size_t mostListed = 10'000;   // entries; a page of a listing has 1,000
constexpr std::uint64_t largeFile = 5 << 20; // bytes; what has more is sent in several parts

} // namespace

Occupants::Occupants(const Session& session, const StorePath& folder)
    : m_session(session)
{
    session.at(folder,
        [&]
        {
            if (!session.provider().folderExists(folder.iri())) // as with --folders prefix, until something is in it
            {
                m_isKnown = true;
                return;
            }
            const auto entries = session.provider().listAll(folder.iri());
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

void Occupants::requireVacant(const StorePath& file, bool replace, std::uint64_t size) const
{
    const auto entry = m_isFolder.find(file.name());
    if (!m_isKnown || (entry != m_isFolder.end() && (entry->second || !replace)))
    {
        m_session.requireVacant(file, replace); // which knows what to say
    }
    else if (!replace && size > largeFile)
    {
        m_session.requireNoFile(file);
    }
}

} // namespace cloudfs
