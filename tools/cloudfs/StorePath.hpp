#pragma once

#include <foundation/storage/provider/StorageIRI.hpp>
#include <foundation/storage/provider/fsp.hpp>

#include <string>
#include <string_view>

namespace cloudfs
{

/// The path of a file or folder in the store, as given on the command line.
///
/// Names are literal: "%" is an ordinary character. Empty and "." segments of an argument are skipped and a leading "/"
/// may be omitted; everything else becomes the store's key unchanged. A name that ends in a dot is refused, because the
/// provider drops the dot: "x." would read, replace or remove "x".
/// A value; any thread may read it.
class StorePath
{
public:
    /// Make the root.
    StorePath();

    /// Parse an argument: "/a/b", or the same path as an IRI, "cloudfs://store/a/b", whose escapes are decoded.
    ///
    /// @throws CommandError for an empty argument, a name that ends in a dot or is not UTF-8, and a malformed IRI
    static StorePath parse(const std::string& argument);

    /// Append a name, or several separated by "/".
    ///
    /// @throws CommandError as parse(), and for an empty or "." segment, so that no two names give the same path
    StorePath child(std::string_view name) const;

    const fsp::StorageIRI& iri() const noexcept { return m_iri; }

    /// "/a/b", without a final "/".
    const std::string& text() const noexcept { return m_text; }

    /// The key of the file's object: text() without its leading "/".
    std::string key() const { return m_text.substr(1); }

    /// The last name; empty for the root.
    std::string name() const { return m_text.substr(m_text.rfind('/') + 1); }

    bool isRoot() const noexcept { return m_text.size() == 1; }

    /// Whether the argument ended in "/", so that only a folder can be meant; true for the root.
    bool namesFolder() const noexcept { return m_namesFolder; }

    /// Return the destination of a file called `name`: inside this path if it names a folder, otherwise this path.
    StorePath resolveFile(std::string_view name) const { return m_namesFolder ? child(name) : *this; }

    /// @pre not the root
    StorePath parent() const;

private:
    void append(std::string_view segment, const std::string& argument);

    fsp::StorageIRI m_iri;
    std::string m_text;
    bool m_namesFolder = true;
};

} // namespace cloudfs
