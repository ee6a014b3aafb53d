#pragma once

#include <foundation/storage/provider/StorageIRI.hpp>
#include <foundation/storage/provider/fsp.hpp>

#include <string>
#include <string_view>

namespace cloudfs
{

/// A file or folder in the store, as the command line names it.
///
/// Names are literal: "%" is a character like any other. Empty and "." segments of an argument are skipped and a
/// leading "/" may be left out; everything else must reach the store's key unchanged. A name that ends in a dot would
/// not (the provider drops the dot, so that "x." would read, replace or remove "x") and is refused.
/// A value; safe to read from any thread.
class StorePath
{
public:
    /// Make the root.
    StorePath();

    /// Read an argument: "/a/b", or the same place as an IRI, "cloudfs://store/a/b", whose escapes are decoded.
    ///
    /// @throws CommandError for text that is not UTF-8, a malformed IRI and a name that the store would not keep
    static StorePath parse(const std::string& argument);

    /// The place of a name, or of several separated by "/", in this folder.
    ///
    /// @throws CommandError as parse(), and for an empty or "." segment, so that two names never become one
    StorePath child(std::string_view name) const;

    const fsp::StorageIRI& iri() const noexcept { return m_iri; }

    /// "/a/b": for messages, and the store's key after its leading "/".
    const std::string& text() const noexcept { return m_text; }

    /// The key that the provider gives to the store.
    std::string key() const { return m_text.substr(1); }

    /// The last name; empty for the root.
    std::string name() const { return m_text.substr(m_text.rfind('/') + 1); }

    bool isRoot() const noexcept { return m_text.size() == 1; }

    /// The argument ended in "/", so that only a folder can be meant.
    bool namesFolder() const noexcept { return m_namesFolder; }

    /// Where a file goes that keeps its own name in the folder, if a folder is named, and here otherwise.
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
