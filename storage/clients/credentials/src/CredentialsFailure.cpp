#include <storage/clients/credentials/CredentialsFailure.hpp>

#include <algorithm>

namespace storage::clients
{

cloudprovider::InvalidCredentialsException invalidCredentials(const std::string& detail)
{
    return cloudprovider::InvalidCredentialsException("Credentials missing or unusable", detail);
}

TransientException credentialsUnavailable(const std::string& detail)
{
    return TransientException("Credentials temporarily unavailable", detail);
}

void requireNoControlCharacters(std::initializer_list<std::string_view> texts, const std::string& what)
{
    const auto isControl = [](char letter) { return (letter >= 0 && letter < ' ') || letter == 0x7F; };
    if (std::any_of(texts.begin(), texts.end(),
            [&](std::string_view text) { return std::any_of(text.begin(), text.end(), isControl); }))
    {
        throw invalidCredentials(what + " contain a control character, such as a line break");
    }
}

} // namespace storage::clients
