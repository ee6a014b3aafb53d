#pragma once

#include <foundation/Export.hpp>
#include <foundation/storage/provider/fsp.hpp>

#include <compare>
#include <iosfwd>
#include <memory>
#include <string>
#include <string_view>

namespace foundation::storage::provider
{

/// Name one file or folder: `scheme://authority/path`.
///
/// A value type: copying shares an immutable representation and costs one reference count. Safe to read from any
/// thread; assignment needs the same care as for any other value.
///
/// The text is parsed once, at construction. The scheme and the host are lower-cased and the path's percent-escapes
/// are decoded as UTF-8, so what an IRI *is* are its scheme, its authority and its decoded path: two spellings of the
/// same path are equal. An escaped separator ("%2F") therefore decodes to a separator like any other, since a key in a
/// store cannot tell the two apart. Dots and doubled separators of the path are kept as they are.
///
/// Text that is no absolute IRI can be held, copied, compared and printed, so that an error can name it. It is
/// malformed when the form `scheme://` is missing, an escape is not two hexadecimal digits, escapes decode to
/// ill-formed UTF-8, a surrogate is unpaired, the authority holds blanks or controls, or a "?" or "#" stands
/// unescaped: a tree of files has no queries and no fragments, and cutting them off would name another file. Every
/// operation on malformed text except copying, comparing and printing throws Exception with
/// ErrorCode::InvalidLocation, whose detail says what is wrong.
class FOUNDATION_EXPORT StorageIRI
{
public:
    /// Make the empty IRI, which names nothing: it has no path and no parent, and does not resolve.
    StorageIRI() noexcept = default;

    /// Parse UTF-16 text. Never throws for malformed text; see above.
    explicit StorageIRI(std::u16string text);

    /// Parse UTF-8 text.
    ///
    /// @throws Exception with ErrorCode::InvalidLocation if `text` is not well-formed UTF-8. The exception's IRI shows
    ///         the offending bytes as escapes. Other faults of the text are kept for later, as in the constructor.
    static StorageIRI fromUtf8(std::string_view text);

    /// Give the text in UTF-8, with escapes where they are needed: for "%", "?", "#", blanks, controls (those of text
    /// direction included) and the ASCII characters that no URI may hold. Other letters stand as they are.
    ///
    /// Parsing the result gives an equal IRI, and equal IRIs give equal results. Malformed text is printed as given,
    /// with controls and blanks escaped. Never throws except for want of memory.
    std::string toUtf8() const;

    /// Check that this is a well-formed absolute IRI and give the one that keys are made of: itself. Dots and doubled
    /// separators stay, since the rules for keys look at them.
    ///
    /// @throws Exception with ErrorCode::InvalidLocation for malformed text and for the empty IRI
    StorageIRI getResolvedIRI() const;

    /// Give the scheme in lower case, without "://". Empty for the empty IRI.
    std::u16string getScheme() const;

    /// Give what stands between "://" and the path, its host in lower case. May be empty.
    std::u16string getAuthority() const;

    /// Tell whether anything follows the authority. A lone "/" is a path.
    bool hasPath() const;

    /// Give the decoded path with its leading "/", for example u"/a b" for "x://h/a%20b". Empty without a path.
    std::u16string getPath() const;

    /// Tell whether the path has a name, that is anything but separators: the root has no parent.
    bool hasParent() const;

    /// Give the IRI without its last name and without the separators before and after that name: the parent of
    /// "x://h/a/b" and of "x://h/a/b/" is "x://h/a", that of "x://h/a" is "x://h/".
    ///
    /// @throws Exception with ErrorCode::InvalidLocation if there is no parent
    StorageIRI getParent() const;

    /// Give the decoded last name of the path, not counting trailing separators: "a" for "x://h/a" and for "x://h/a/".
    /// Empty when hasParent() is false.
    std::u16string getName() const;

    /// Give the IRI of a file or folder below this one.
    ///
    /// @param name  unescaped; a relative path of several names, as recursive listings give it, is allowed. Leading
    ///              separators of it are dropped; a trailing one is kept. An empty name gives this IRI itself.
    /// An unpaired surrogate makes the result malformed, as it would in the constructor.
    StorageIRI getChild(std::u16string_view name) const;

    /// Compare scheme, authority and decoded path; malformed text is equal only to the same malformed text.
    friend FOUNDATION_EXPORT bool operator==(const StorageIRI& left, const StorageIRI& right) noexcept;

    /// Order strictly and totally, consistent with equality: by UTF-16 code units, malformed text last.
    friend FOUNDATION_EXPORT std::strong_ordering operator<=>(const StorageIRI& left, const StorageIRI& right) noexcept;

    /// Write toUtf8().
    friend FOUNDATION_EXPORT std::ostream& operator<<(std::ostream& stream, const StorageIRI& iri);

private:
    struct Representation;

    explicit StorageIRI(std::shared_ptr<const Representation> representation) noexcept;

    const Representation& representation() const noexcept;
    const Representation& wellFormed() const;

    std::shared_ptr<const Representation> m_representation; // null: the empty IRI; never changed once built
};

} // namespace foundation::storage::provider
