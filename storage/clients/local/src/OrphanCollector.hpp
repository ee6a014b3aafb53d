#pragma once

#include "ContentFiles.hpp"
#include "Database.hpp"

namespace storage::clients::local
{

/// End the uploads that dead clients left, and remove orphans: files that dead clients left and that the index does not
/// name. Other clients may use the store meanwhile; their session locks protect the files that they are writing.
///
/// Lists one folder, and looks at the files that dead sessions have noted. It lists all content files only if the
/// machine was restarted since a session died, for then the notes may be incomplete. On a full disk, those files are
/// left that an interrupted commit may name: at most the files of one transaction for each dead client. While another
/// client writes, all are left.
///
/// Failures are logged: orphans must not keep anybody from reading. The next call tries again.
void collectOrphans(Database& database, ContentFiles& files);

} // namespace storage::clients::local
