#pragma once

#include <storage/cloudprovider/Export.hpp>

#include <cstddef>
#include <string>

namespace storage::cloudprovider
{

/// Return how the names of this process's temporary files begin: "NAME-PLACE-PID-START-".
///
/// PLACE is the same for all processes that can see each other's ids: those of one boot of one machine in one pid
/// namespace. START is the start time of the process. If /proc does not show them, the result is "NAME-PID-", and
/// nobody takes the process for dead. Any thread may call.
/// @param name  "cloudprovider" for the provider's own files
CLOUDPROVIDER_EXPORT std::string temporaryFilePrefix(const std::string& name = "cloudprovider");

/// Remove the temporary files of processes that have ended.
///
/// A process deletes its temporary files itself, unless it is killed. Their names begin with temporaryFilePrefix(),
/// which tells which process created them. This function removes those that belong to this user and whose process no
/// longer exists. It recognises a process by its id and its start time, so a new process that got the same id does not
/// count. It keeps files from another machine, from before this machine was started and from another container (pid or
/// time namespace), because it cannot tell whether their processes still run.
///
/// The directory is read once. Only files with a matching name cost more: a lookup in /proc, and a status request
/// before the removal. Any thread may call, also while other processes create or remove files. Never throws: a file
/// that cannot be removed is logged as a warning, and a directory that cannot be read has nothing to remove.
/// @param folder  empty: the system's temporary directory, where the provider's files are: the first of TMPDIR, TMP,
///                TEMP and TEMPDIR that is set, else /tmp
/// @param name    as for temporaryFilePrefix()
/// @return the number of files removed
CLOUDPROVIDER_EXPORT std::size_t removeTemporaryFilesOfDeadProcesses(
    const std::string& folder = {}, const std::string& name = "cloudprovider") noexcept;

} // namespace storage::cloudprovider
