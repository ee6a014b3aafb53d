#pragma once

#include <storage/cloudprovider/Logger.hpp>

#include <foundation/log/Severity.hpp>

#include <sstream>

/// The log records that every operation writes, in one format. A record whose severity is disabled is not formatted.
namespace storage::cloudprovider
{

/// The function that writes a record: its full signature and its location.
struct CallSite
{
    const char* signature;
    const char* source; ///< path of the source file without its extension
    unsigned line;

    // The line comes from the builtin, because clang 14 cannot evaluate std::source_location here.
    consteval CallSite(const char* functionSignature, const char* sourceFile,
        unsigned callLine = static_cast<unsigned>(__builtin_LINE()))
        : signature(functionSignature)
        , source(sourceFile)
        , line(callLine)
    {
    }
};

/// A value with its name. The value is borrowed.
template <typename T>
struct Named
{
    const char* name;
    const T& value;
};

template <typename T>
Named<T> named(const char* name, const T& value)
{
    return {name, value};
}

namespace detail
{
template <typename... Values>
[[gnu::noinline, gnu::cold]] void writeRecord(const CallSite& site, const Named<Values>&... values)
{
    std::ostringstream text;
    text << site.signature << " (" << site.source << ':' << site.line << ')';
    ((text << ' ' << values.name << '=' << values.value), ...);
    getLogger().write(foundation::log::severity::detail, text.str());
}
} // namespace detail

/// Log that a function was entered, with its arguments.
template <typename... Values>
void logEntry(const CallSite& site, const Named<Values>&... arguments)
{
    if (getLogger().isEnabled(foundation::log::severity::detail))
    {
        detail::writeRecord(site, arguments...);
    }
}

/// Log the result of a function.
template <typename T>
void logResult(const CallSite& site, const Named<T>& result)
{
    logEntry(site, result);
}

/// Log the exception that is being handled: its type, its text and, if known, where it was thrown. Call inside a catch
/// block.
void logCaughtException();

} // namespace storage::cloudprovider
