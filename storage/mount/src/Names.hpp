#pragma once

#include <string>
#include <string_view>

/// Which name in a folder stands for which segment of a key. A segment is what is between two "/" of a key.
///
/// Almost every name is its segment. A key may also have empty segments and the segments "." and "..", which no path
/// can have; these have U+241B ("␛") in front. So that every segment still has a name of its own, those that look like
/// it have one more "␛".
namespace storage::mount::names
{

/// Return the name of a segment. It is longer than a name may be if the segment is.
std::string fromSegment(std::string_view segment);

/// Return the segment that a name stands for.
std::string toSegment(std::string_view name);

/// Check a name of something that is to be created.
///
/// @param key  its key; a folder's without the final "/"
/// @throws Failure  ENAMETOOLONG, EILSEQ for text that is not UTF-8 or that stores cannot keep
void check(std::string_view name, const std::string& key);

} // namespace storage::mount::names
