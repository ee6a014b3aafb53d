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

/// The name of one file or folder: `scheme://authority/path`.
///
/// A value type: copies share an immutable representation, so copying only increments a reference count. Any thread may
/// read an IRI; assignment needs the same synchronisation as for any other value.
///
/// The text is parsed once, at construction. The scheme and the host are converted to lower case, and the path's
/// percent-escapes are decoded as UTF-8. Two IRIs are equal if their schemes, authorities and decoded paths are equal,
/// however the paths were escaped. An escaped separator ("%2F") decodes to an ordinary separator, because the keys of a
/// store cannot distinguish the two. Dots and doubled separators in the path are kept.
///
/// Text that is not an absolute IRI can be held, copied, compared and printed, so that an error can name it. Text is
/// malformed if `scheme://` is missing, an escape is not two hexadecimal digits, escapes decode to ill-formed UTF-8, a
/// surrogate is unpaired, the authority contains blanks or control characters, or a "?" or "#" is not escaped: a tree
/// of files has no queries or fragments, and dropping them would name another file. Every operation on malformed text
/// except copying, comparing and printing throws Exception with ErrorCode::InvalidLocation. The detail says what is
/// wrong.
class FOUNDATION_EXPORT StorageIRI
{
public:
    /// Construct the empty IRI, which names nothing: it has no path and no parent, and does not resolve.
    StorageIRI() noexcept = default;

    /// Parse UTF-16 text. Never throws for malformed text; see above.
    explicit StorageIRI(std::u16string text);

    /// Parse UTF-8 text.
    ///
    /// @throws Exception with ErrorCode::InvalidLocation if `text` is not well-formed UTF-8. The exception's IRI shows
    ///         the bytes that are not ASCII as escapes. Other malformed text does not throw, as in the constructor.
    static StorageIRI fromUtf8(std::string_view text);

    /// Get the text in UTF-8. Escaped are "%", "?", "#", blanks, control characters (also those that set the text
    /// direction) and the ASCII characters that a URI must not contain. All other characters are written as they are.
    ///
    /// Parsing the result gives an equal IRI, and equal IRIs give equal results. Malformed text is returned as it was
    /// given, with control characters and blanks escaped. Throws only std::bad_alloc.
    std::string toUtf8() const;

    /// Check that this is a well-formed absolute IRI, and return it. Dots and doubled separators are kept, because the
    /// rules for keys depend on them.
    ///
    /// @throws Exception with ErrorCode::InvalidLocation for malformed text and for the empty IRI
    StorageIRI getResolvedIRI() const;

    /// Get the scheme in lower case, without "://". Empty for the empty IRI.
    std::u16string getScheme() const;

    /// Get the part between "://" and the path, with the host in lower case. May be empty.
    std::u16string getAuthority() const;

    /// Tell whether anything follows the authority. A single "/" is a path.
    bool hasPath() const;

    /// Get the decoded path with its leading "/", for example u"/a b" for "x://h/a%20b". Empty if there is no path.
    std::u16string getPath() const;

    /// Tell whether the path contains anything but separators. The root has no parent.
    bool hasParent() const;

    /// Get the IRI without its last name and without the separators before and after that name: the parent of
    /// "x://h/a/b" and of "x://h/a/b/" is "x://h/a", that of "x://h/a" is "x://h/".
    ///
    /// @throws Exception with ErrorCode::InvalidLocation if there is no parent
    StorageIRI getParent() const;

    /// Get the decoded last name of the path, ignoring trailing separators: "a" for "x://h/a" and for "x://h/a/".
    /// Empty when hasParent() is false.
    std::u16string getName() const;

    /// Get the IRI of a file or folder below this one.
    ///
    /// @param name  unescaped; may be a relative path of several names, as in a recursive listing. Leading separators
    ///              are dropped, a trailing one is kept. If it is empty, the result is this IRI.
    /// As in the constructor, an unpaired surrogate makes the result malformed.
    StorageIRI getChild(std::u16string_view name) const;

    /// Compare scheme, authority and decoded path. Malformed text equals only the same malformed text.
    friend FOUNDATION_EXPORT bool operator==(const StorageIRI& left, const StorageIRI& right) noexcept;

    /// Define a strict total order that is consistent with equality: by UTF-16 code units, malformed text last.
    friend FOUNDATION_EXPORT std::strong_ordering operator<=>(const StorageIRI& left, const StorageIRI& right) noexcept;

    /// Write toUtf8().
    friend FOUNDATION_EXPORT std::ostream& operator<<(std::ostream& stream, const StorageIRI& iri);

private:
    struct FOUNDATION_HIDDEN Representation;

    FOUNDATION_HIDDEN explicit StorageIRI(std::shared_ptr<const Representation> representation) noexcept;

    FOUNDATION_HIDDEN const Representation& representation() const noexcept;
    FOUNDATION_HIDDEN const Representation& wellFormed() const;

    std::shared_ptr<const Representation> m_representation; // null: the empty IRI; constant once built
};

} // namespace foundation::storage::provider
