#include <foundation/storage/provider/Exception.hpp>

#include "oneLine.hpp"

#include <string>
#include <utility>

namespace foundation::storage::provider
{

namespace
{

std::string describe(const ErrorCode& code, const StorageIRI& iri)
{
    std::string text = code.name() + ": " + iri.toUtf8();
    if (code.detail() && !code.detail()->empty())
    {
        text += ": " + onOneLine(*code.detail());
    }
    return text;
}

} // namespace

struct Exception::Contents
{
    ErrorCode code;
    StorageIRI iri;
    std::string text;
};

Exception::Exception(ErrorCode errorCode, StorageIRI iri)
{
    std::string text = describe(errorCode, iri);
    m_contents = std::make_shared<const Contents>(Contents{std::move(errorCode), std::move(iri), std::move(text)});
}

Exception::~Exception() = default;

const ErrorCode& Exception::errorCode() const noexcept
{
    return m_contents->code;
}

const StorageIRI& Exception::iri() const noexcept
{
    return m_contents->iri;
}

const char* Exception::what() const noexcept
{
    return m_contents->text.c_str();
}

} // namespace foundation::storage::provider
