#pragma once

#include <storage/cloudprovider/Export.hpp>

#include <foundation/storage/provider/StorageIRI.hpp>

#include <boost/date_time/posix_time/ptime.hpp>

#include <string>

/// Where framework paths (UTF-16) and object keys (UTF-8) meet.
///
/// Every function is pure and may be called from any thread. Objects already stored were named by these rules, so the
/// rules are fixed, the odd ones included.
namespace storage::cloudprovider::utils
{

/// The character between the segments of a path and of a key.
constexpr char16_t separator() noexcept
{
    return u'/';
}

/// The character that a path segment may lose to canonicalize().
constexpr char16_t dot() noexcept
{
    return u'.';
}

/// Tidy a path as text: drop every "." that stands before a "/", then one final ".", then all but the last of
/// neighbouring "/". Parents are not resolved: "a/../b" becomes "a/./b", "a./b" becomes "a/b", "x." becomes "x".
CLOUDPROVIDER_EXPORT std::u16string canonicalize(const std::u16string& path);

/// Make the key of the file that the IRI names: its canonical path without the leading "/", in UTF-8.
///
/// Only the path counts; an IRI without one gives the empty key, which is the root's.
/// @throws foundation::storage::provider::Exception for an IRI that is malformed
CLOUDPROVIDER_EXPORT std::string iriToKey(const foundation::storage::provider::StorageIRI& iri);

/// Return the path without its first character if that is "/".
CLOUDPROVIDER_EXPORT std::u16string removeLeadingSlash(const std::u16string& path);

/// Return the path with a "/" before it unless it begins with one.
CLOUDPROVIDER_EXPORT std::u16string addLeadingSlash(const std::u16string& path);

/// Return the path without its last character if that is "/"; at most one is removed.
CLOUDPROVIDER_EXPORT std::u16string removeTrailingSlash(std::u16string path);

/// Return the key as a folder's key and listing prefix: it ends in "/", but the empty key, the root's, stays empty.
CLOUDPROVIDER_EXPORT std::string ensureTrailingSlash(std::string key);

/// Tell whether a key names a folder: it ends in "/".
CLOUDPROVIDER_EXPORT bool hasTrailingSlash(const std::string& key);

/// Turn milliseconds since 1970-01-01 00:00:00 UTC into a time of whole seconds, truncated towards zero.
CLOUDPROVIDER_EXPORT boost::posix_time::ptime double2Ptime(double milliseconds);

/// Turn milliseconds since 1970-01-01 00:00:00 UTC into a time; unlike double2Ptime() it keeps the milliseconds.
CLOUDPROVIDER_EXPORT boost::posix_time::ptime long2Ptime(long long milliseconds);

} // namespace storage::cloudprovider::utils
