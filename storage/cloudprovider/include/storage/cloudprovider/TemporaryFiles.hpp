#pragma once

#include <storage/cloudprovider/Export.hpp>

#include <cstddef>

namespace storage::cloudprovider
{

/// Remove the temporary files of processes that have ended.
///
/// A process deletes its temporary files itself, unless it is killed. Their names tell which process created them. This
/// function removes those in the system's temporary directory (the first of TMPDIR, TMP, TEMP and TEMPDIR that is set,
/// else /tmp) that belong to this user and whose process no longer exists. It recognises a process by its id and its
/// start time, so a new process that got the same id does not count. It keeps files from another machine, from before
/// this machine was started and from another container (pid or time namespace), because it cannot tell whether their
/// processes still run.
///
/// The directory is read once. Only files with a matching name cost more: a lookup in /proc, and a status request
/// before the removal. Any thread may call, also while other processes create or remove files. Never throws: a file
/// that cannot be removed is logged as a warning, and a directory that cannot be read has nothing to remove.
/// @return the number of files removed
CLOUDPROVIDER_EXPORT std::size_t removeTemporaryFilesOfDeadProcesses() noexcept;

} // namespace storage::cloudprovider
