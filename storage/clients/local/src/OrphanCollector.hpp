#pragma once

#include "ContentFiles.hpp"
#include "Database.hpp"

namespace storage::clients::local
{

/// Remove orphans: files that dead clients left and that the index does not name. Other clients may use the store
/// meanwhile; their session locks protect files that they are writing, and a write transaction on the index excludes
/// files that they are about to add.
///
/// Lists one folder, and all content files only if a dead session is found.
/// @throws StoreError; orphans that remain are collected by the next call
void collectOrphans(Database& database, ContentFiles& files);

} // namespace storage::clients::local
