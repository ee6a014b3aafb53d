#pragma once

#include <storage/cloudprovider/Export.hpp>

#include <foundation/storage/provider/StorageIRI.hpp>

#include <boost/date_time/posix_time/ptime.hpp>

#include <string>

/// Conversions between framework paths (UTF-16) and object keys (UTF-8).
///
/// Every function is pure and may be called from any thread. Existing objects were named by these rules, so the rules
/// cannot change, however odd some of them are.
namespace storage::cloudprovider::utils
{

/// The character that separates the segments of a path or key.
constexpr char16_t separator() noexcept
{
    return u'/';
}

/// The character that canonicalize() removes from the end of a path segment.
constexpr char16_t dot() noexcept
{
    return u'.';
}

/// Normalise a path as text, in three steps: remove every "." that is followed by "/"; remove one "." at the end;
/// collapse each run of "/" into one. Parent segments are not resolved: "a/../b" becomes "a/./b", "a./b" becomes "a/b",
/// "x." becomes "x".
CLOUDPROVIDER_EXPORT std::u16string canonicalize(const std::u16string& path);

/// Return the key of the file that the IRI names: its canonical path without the leading "/", in UTF-8.
///
/// Scheme and authority are ignored. An IRI without a path gives the empty key, which is the key of the root.
/// @throws foundation::storage::provider::Exception for a malformed IRI
CLOUDPROVIDER_EXPORT std::string iriToKey(const foundation::storage::provider::StorageIRI& iri);

/// Return the path without one leading "/", if it has any.
CLOUDPROVIDER_EXPORT std::u16string removeLeadingSlash(const std::u16string& path);

/// Return the path with a leading "/", adding one if there is none.
CLOUDPROVIDER_EXPORT std::u16string addLeadingSlash(const std::u16string& path);

/// Return the path without one trailing "/", if it has any.
CLOUDPROVIDER_EXPORT std::u16string removeTrailingSlash(std::u16string path);

/// Return the folder key and listing prefix for a key: the key with a trailing "/". The empty key of the root stays
/// empty.
CLOUDPROVIDER_EXPORT std::string ensureTrailingSlash(std::string key);

/// Return whether a key names a folder, that is, whether it ends in "/".
CLOUDPROVIDER_EXPORT bool hasTrailingSlash(const std::string& key);

/// Convert milliseconds since 1970-01-01 00:00:00 UTC into a time of whole seconds, truncated towards zero.
CLOUDPROVIDER_EXPORT boost::posix_time::ptime double2Ptime(double milliseconds);

/// Convert milliseconds since 1970-01-01 00:00:00 UTC into a time. Unlike double2Ptime(), it keeps the milliseconds.
CLOUDPROVIDER_EXPORT boost::posix_time::ptime long2Ptime(long long milliseconds);

} // namespace storage::cloudprovider::utils
