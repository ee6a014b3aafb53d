#pragma once

#include "ContentFiles.hpp"
#include "Database.hpp"

namespace storage::clients::local
{

/// Remove the files of clients that were ended in the middle of things. Others may use the store meanwhile: theirs are
/// told apart by marks that are locked, and by taking a turn at the index.
///
/// Costs a look into one folder when there is nothing to do, else a look at every file.
/// @throws StoreError; what is left is collected the next time
void collectOrphans(Database& database, ContentFiles& files);

} // namespace storage::clients::local
