#pragma once

#include <storage/cloudprovider/Logger.hpp>

#include <foundation/log/Severity.hpp>

#include <cstdint>
#include <locale>
#include <ostream>
#include <sstream>

/// The log records that every operation writes, in one format. A record whose severity is disabled is not formatted.
/// None of these functions throws: a record that cannot be formed or written is lost, and its operation continues.
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

inline std::ostream& operator<<(std::ostream& out, const CallSite& site)
{
    return out << site.signature << " (" << site.source << ':' << site.line << ')';
}

/// A value with its name. The value is borrowed.
template <typename T>
struct Named
{
    const char* name;
    const T& value;
};

template <typename T>
std::ostream& operator<<(std::ostream& out, const Named<T>& named)
{
    return out << ' ' << named.name << '=' << named.value;
}

template <typename T>
Named<T> named(const char* name, const T& value)
{
    return {name, value};
}

/// Log a message that consists of these values, if the severity is enabled. Numbers are written as in C.
template <typename... Values>
[[gnu::noinline, gnu::cold]] void logMessage(std::uint32_t severity, const Values&... values) noexcept
{
    try
    {
        if (getLogger().isEnabled(severity))
        {
            std::ostringstream text;
            text.imbue(std::locale::classic());
            (text << ... << values);
            getLogger().write(severity, text.str());
        }
    }
    catch (...) // There is no memory for the record, and nowhere else to report that.
    {
    }
}

/// Log that a function was entered, with its arguments.
template <typename... Values>
void logEntry(const CallSite& site, const Named<Values>&... arguments) noexcept
{
    try
    {
        if (getLogger().isEnabled(foundation::log::severity::detail))
        {
            logMessage(foundation::log::severity::detail, site, arguments...);
        }
    }
    catch (...) // There is no memory to construct the logger.
    {
    }
}

/// Log the result of a function.
template <typename T>
void logResult(const CallSite& site, const Named<T>& result) noexcept
{
    logEntry(site, result);
}

/// Log the exception that is being handled: its type, its text and, if known, where it was thrown. Call inside a catch
/// block.
void logCaughtException() noexcept;

} // namespace storage::cloudprovider
