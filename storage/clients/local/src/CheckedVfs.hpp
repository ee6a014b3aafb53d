#pragma once

namespace storage::clients::local
{

/// Bytes of a page of the index. CheckedVfs works with no other size.
constexpr int indexPageSize = 4096;

/// Bytes at the end of each page that SQLite leaves to the checksum.
constexpr int pageChecksumSize = 8;

/// The suffix of the file beside the index that says how much of the write-ahead log must be intact.
constexpr const char* logEndSuffix = "-end";

// Operations of sqlite3_file_control() on an index.

/// Call a function before each read of the index. The argument is a pointer to a std::function<void()> that does not
/// throw; null: call nothing.
constexpr int callOnRead = 1000;

/// Let the write-ahead log count up to its first damage. No argument.
constexpr int ignoreLogEnd = 1001;

/// Return the name of a file layer (VFS) of SQLite that checks everything that it reads from an index. It is registered
/// at the first call. Any thread may call this.
///
/// - Each page of the index has a checksum, which also covers the number of the page. It is written with the page.
/// - A page that is read from the write-ahead log is compared with the log's own checksum, which SQLite itself compares
///   only when it opens a log that a crash has left. There, SQLite takes the first damaged page for the end of the log
///   and loses the transactions after it. So a small file beside the index keeps the place up to which the log was
///   synced, and a log that is damaged before that place is refused.
///
/// Damage fails with SQLITE_CORRUPT, as does an index that was truncated, also to nothing or while it is open, and
/// something that is not a regular file in the place of one. An index that was replaced while it was being opened fails
/// with SQLITE_READONLY_DBMOVED. The contents of the shared memory of the connections is not checked: it does not
/// outlive them.
///
/// The layer also keeps the room that removals need on a full disk. A transaction that enlarges the index gets the room
/// for it before it is committed, so that a checkpoint never needs more. The log is never removed, and a part of it is
/// kept when the last connection closes.
///
/// Other programs can read an index with the layers of SQLite, but every page that they write counts as damaged.
const char* checkedVfs();

} // namespace storage::clients::local
