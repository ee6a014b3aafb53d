#include <storage/clients/local/CheckLocalStore.hpp>

#include "ContentFiles.hpp"
#include "Database.hpp"
#include "IndexRepair.hpp"
#include "Objects.hpp"
#include "Schema.hpp"
#include "Segments.hpp"
#include "StoreTransaction.hpp"
#include "TranslateErrors.hpp"
#include "Uploads.hpp"

#include <storage/clients/local/LocalClient.hpp>

#include <fmt/format.h>

#include <cerrno>
#include <memory>
#include <optional>
#include <vector>

#include <unistd.h>

namespace storage::clients
{

using local::Database;
using local::Durability;
using local::FileName;
using local::Segment;
using local::StoreError;
using local::StoreTransaction;

namespace
{

struct Object
{
    std::string key;
    std::int64_t id = 0;
    std::uint64_t size = 0;
};

struct UploadPart
{
    std::int64_t upload = 0;
    std::string key;
    Segment segment;
    FileName name;
    bool isInIndex = true;
};

// Whether the object is still under its key.
bool isStored(local::Connection& index, const Object& object)
{
    const auto now = findObject(index, object.key);
    return now && now->id == object.id;
}

class Check
{
public:
    Check(std::filesystem::path directory, const CheckOptions& options)
        : m_directory(std::move(directory))
        , m_options(options)
    {
    }

    CheckResult run();

private:
    bool openAndCheckIndex();
    void open();
    void checkObjects();
    void checkObject(const Object& object);
    void checkUploads();
    std::optional<std::string> findDamage(UploadPart& part);
    bool isOpen(std::int64_t upload);
    bool abortUpload(std::int64_t upload);
    std::optional<std::string> removeObject(const Object& object);
    void copyAside(const Object& object, const std::filesystem::path& target);
    void report(const Damage& damage);

    void read(const Segment& segment)
    {
        readSegment(segment, [this](const char*, std::uint64_t) { m_options.progress(); });
    }

    const std::filesystem::path m_directory;
    const CheckOptions& m_options;
    const local::LockLimits m_limits{LocalSettings().lockTimeout, m_options.interrupted};
    std::unique_ptr<Database> m_index;
    std::unique_ptr<local::ContentFiles> m_files;
    CheckResult m_result;
};

CheckResult Check::run()
{
    if (openAndCheckIndex())
    {
        checkObjects();
        checkUploads();
    }
    return m_result;
}

// @return whether the objects can be checked
bool Check::openAndCheckIndex()
{
    std::string reason;
    try
    {
        open();
        return true;
    }
    catch (const StoreError& error)
    {
        throwUnlessDamage(error);
        reason = error.what();
    }
    m_files.reset();
    m_index.reset();
    if (!m_options.repair)
    {
        report({Damage::Kind::Index, {}, reason, {}});
        return false;
    }
    repairIndex(m_directory, m_limits, reason, [this](const Damage& damage) { report(damage); });
    open();
    return true;
}

void Check::open()
{
    local::prepareIndex(m_directory, false, m_limits);
    m_index = std::make_unique<Database>(local::indexFile(m_directory), m_limits);
    m_files = std::make_unique<local::ContentFiles>(m_directory);
    Database::ReadTransaction(*m_index)->checkPages(m_options.interrupted);
}

void Check::checkObjects()
{
    constexpr std::int64_t pageSize = 1000; // keys; no transaction is open while their objects are read
    std::vector<Object> page;
    std::string last;
    do
    {
        page.clear();
        {
            Database::ReadTransaction index(*m_index);
            local::Query query = index->query(
                "SELECT key, id, size FROM objects WHERE key > ? ORDER BY key LIMIT ?", local::Blob{last}, pageSize);
            while (query.next())
            {
                page.push_back(
                    {std::string(query.bytes(0)), query.integer(1), static_cast<std::uint64_t>(query.integer(2))});
            }
        }
        for (const Object& object : page)
        {
            checkObject(object);
            last = object.key;
        }
    } while (!page.empty());
}

void Check::checkObject(const Object& object)
{
    m_options.progress();
    bool hasAllChecksums = true;
    try
    {
        if (!readSegments(*m_index, *m_files, object.id, 0, object.size,
                [&](const Segment& segment)
                {
                    hasAllChecksums = hasAllChecksums && (segment.path.empty() || !segment.hashes.empty());
                    read(segment);
                }))
        {
            return; // it was replaced or removed
        }
    }
    catch (const StoreError& error)
    {
        if (!isStored(*Database::ReadTransaction(*m_index), object))
        {
            return;
        }
        throwUnlessDamage(error);
        const std::optional<std::string> repair = m_options.repair ? removeObject(object) : "";
        if (!repair)
        {
            return; // it was replaced or removed meanwhile
        }
        report({Damage::Kind::Object, object.key, error.what(), *repair});
    }
    ++m_result.objects;
    m_result.bytes += object.size;
    m_result.withoutChecksum += hasAllChecksums ? 0U : 1U;
}

void Check::checkUploads()
{
    std::vector<UploadPart> parts;
    {
        Database::ReadTransaction index(*m_index);
        local::Query query = index->query(
            "SELECT upload.id, upload.key, content.id, content.size, content.session, content.hashes FROM uploads AS"
            " upload JOIN upload_parts AS part ON part.upload = upload.id LEFT JOIN contents AS content ON content.id"
            " = part.content WHERE content.session IS NOT NULL OR content.id IS NULL ORDER BY upload.id");
        while (query.next())
        {
            const auto size = static_cast<std::uint64_t>(query.integer(3));
            const FileName name{query.integer(2), static_cast<std::uint64_t>(query.integer(4))};
            parts.push_back({query.integer(0), std::string(query.bytes(1)),
                {size, {}, {}, m_files->path(name), 0, size, std::string(query.bytes(5))}, name, !query.isNull(2)});
        }
    }
    std::int64_t damaged = -1;
    for (UploadPart& part : parts)
    {
        const std::optional<std::string> reason = part.upload == damaged ? std::nullopt : findDamage(part);
        if (!reason)
        {
            continue;
        }
        damaged = part.upload;
        if (m_options.repair ? abortUpload(part.upload) : isOpen(part.upload))
        {
            report({Damage::Kind::Upload, part.key, *reason, m_options.repair ? "aborted" : ""});
        }
    }
}

std::optional<std::string> Check::findDamage(UploadPart& part)
{
    try
    {
        if (!part.isInIndex)
        {
            return "the index has lost a part";
        }
        std::optional<local::FileHandle> file = m_files->open(part.name, part.segment.size);
        if (!file)
        {
            return "the file of a part is missing";
        }
        part.segment.file = std::move(*file);
        read(part.segment);
        return std::nullopt;
    }
    catch (const StoreError& error)
    {
        throwUnlessDamage(error);
        return error.what();
    }
}

bool Check::isOpen(std::int64_t upload)
{
    Database::ReadTransaction index(*m_index);
    return index->query("SELECT 1 FROM uploads WHERE id = ?", upload).next();
}

// @return false: it was completed or aborted meanwhile
bool Check::abortUpload(std::int64_t upload)
{
    bool isAborted = false;
    local::freeRoom(*m_index,
        [&]
        {
            StoreTransaction transaction(*m_index, *m_files, Durability::Synced);
            isAborted = endUpload(transaction, upload);
            transaction.commit();
        });
    return isAborted;
}

// @return what was done; nullopt: the object was replaced or removed meanwhile
std::optional<std::string> Check::removeObject(const Object& object)
{
    const std::filesystem::path folder = m_directory / "damaged";
    local::makeFolders(folder);
    const std::filesystem::path target = folder / local::tagOf(object.id);
    copyAside(object, target);
    bool isStillStored = false;
    local::freeRoom(*m_index,
        [&]
        {
            StoreTransaction transaction(*m_index, *m_files, Durability::Synced);
            isStillStored = isStored(transaction.index(), object);
            if (isStillStored)
            {
                local::removeObject(transaction, object.key);
                transaction.commit();
            }
        });
    if (!isStillStored)
    {
        local::removeFile(target);
        return std::nullopt;
    }
    return fmt::format("removed; what was found of its {} bytes is in \"{}\"", object.size, target.native());
}

// Copy the bytes of an object as they are: damaged ones included, zeros for missing ones.
void Check::copyAside(const Object& object, const std::filesystem::path& target)
{
    local::removeFile(target);
    const local::FileHandle to = local::createFile(target);
    Database::ReadTransaction index(*m_index);
    local::Query query = index->query("SELECT part.offset, content.id, content.session, content.data FROM object_parts"
                                      " AS part JOIN contents AS content ON content.id = part.content"
                                      " WHERE part.object = ? ORDER BY part.offset",
        object.id);
    while (query.next())
    {
        m_options.progress();
        ::lseek(to.get(), query.integer(0), SEEK_SET);
        if (query.isNull(2))
        {
            local::writeFile(to, target, query.bytes(3).data(), query.bytes(3).size());
            continue;
        }
        const auto path = m_files->path({query.integer(1), static_cast<std::uint64_t>(query.integer(2))});
        try
        {
            if (const auto from = local::openFile(path))
            {
                local::copyFile(*from, path, 0, to, target, local::fileSize(*from, path));
            }
        }
        catch (const StoreError& error)
        {
            throwUnlessDamage(error); // else the rest of the part cannot be read
        }
    }
    if (::ftruncate(to.get(), static_cast<off_t>(object.size)) != 0)
    {
        throw local::systemError("writing \"" + target.native() + '"', errno);
    }
    local::syncFile(to, target);
}

void Check::report(const Damage& damage)
{
    ++m_result.damaged;
    m_result.repaired += damage.repair.empty() ? 0U : 1U;
    m_options.report(damage);
}

} // namespace

CheckResult checkLocalStore(const std::filesystem::path& directory, const CheckOptions& options)
{
    return local::translateErrors([&] { return Check(std::filesystem::absolute(directory), options).run(); },
        [&] { return fmt::format("checking the local store \"{}\"", directory.native()); });
}

} // namespace storage::clients
