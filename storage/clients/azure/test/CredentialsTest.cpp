#include "LoopbackServer.hpp"
#include "credentials/CredentialsSources.hpp"

#include <storage/clients/credentials/RefreshingCredentials.hpp>
#include <storage/clients/http/UriEncoding.hpp>

#include <gmock/gmock.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>

#include <unistd.h>

namespace storage::clients::azure
{

namespace
{

using namespace std::chrono_literals;
using namespace clients::test;
using testing::HasSubstr;

/// "key/signature/token.", or "later: …" or "never: …" with the whole message of a failure.
std::string outcomeOf(CredentialsSource& source)
{
    try
    {
        const Credentials found = source.credentials();
        return found.accountKey + '/' + found.sas + '/' + found.bearerToken + '.';
    }
    catch (const cloudprovider::CloudException& failure)
    {
        const bool isTransient = dynamic_cast<const TransientException*>(&failure) != nullptr;
        EXPECT_NE(isTransient, dynamic_cast<const cloudprovider::InvalidCredentialsException*>(&failure) != nullptr);
        EXPECT_THAT(failure.detail().value_or(""), testing::Not(HasSubstr("S3CRET")));
        return (isTransient ? "later: " : "never: ") + failure.detail().value_or("");
    }
}

/// Plays all services. The token that it issues says what it was asked for.
Reply issue(const Request& request)
{
    const bool isGet = request.method_string() == "GET";
    const std::string target = isGet ? uriDecode(std::string(request.target())) : std::string(request.target());
    const std::string form = uriDecode(request.body());
    const auto has = [&](const char* text) { return (target + form).find(text) != std::string::npos; };
    if (has("client_id=refused") || has("refresh_token=old"))
    {
        return {401, {}, R"({"error":"invalid_client","error_description":"No such client.\r\nS3CRET"})"};
    }
    if (has("client_id=empty"))
    {
        return {.body = "{}"};
    }
    const std::string token = R"({"access_token":")" + target + ' ' + form;
    if (!isGet)
    {
        return {.body = token + R"(","expires_in":3599,"ext_expires_in":3599})"};
    }
    const bool isAllowed = has("/app") ? request["X-IDENTITY-HEADER"] == "S3CRET" : request["Metadata"] == "true";
    return has("client_id=moving") ? Reply{410}
           : isAllowed             ? Reply{.body = token + R"(","expires_on":"4102444800"})"}
                                   : Reply{400, {}, "S3CRET"};
}

/// A home folder and a clock of its own.
class CredentialsTest : public testing::Test
{
protected:
    CredentialsTest()
    {
        std::string path = std::filesystem::temp_directory_path() / "azure_test_XXXXXX";
        home = ::mkdtemp(path.data());
        std::filesystem::create_directory(home / ".azure");
    }

    ~CredentialsTest() override { std::filesystem::remove_all(home); }

    std::unique_ptr<CredentialsSource> source(Environment::Variables variables)
    {
        variables.insert({{"HOME", home}, {"AZURE_AUTHORITY_HOST", server->url()}, {"AZURE_METADATA_DISABLED", "True"},
            {"AZURE_POD_IDENTITY_AUTHORITY_HOST", server->url() + "/"}});
        return std::make_unique<RefreshingCredentials<CredentialsSource>>(
            credentialsChain({{Environment(std::move(variables))}, "a"}), [this] { return now; });
    }

    void write(const std::string& file, const std::string& text)
    {
        text.empty() ? void(std::filesystem::remove(home / file)) : void(std::ofstream(home / file) << text);
    }

    std::filesystem::path home;
    std::unique_ptr<LoopbackServer> server = std::make_unique<LoopbackServer>(issue);
    std::chrono::sys_seconds now = std::chrono::floor<std::chrono::seconds>(std::chrono::system_clock::now());
};

/// The cache with tokens for the storage service of tenant "t", which expire then, and for another service.
std::string cacheOf(const std::string& expiry, const std::string& refreshToken = "good")
{
    using Text = const std::string&;
    const auto entry = [&](Text name, Text realm, Text secret, Text service)
    {
        return "\"h.t-" + name + R"(":{"home_account_id":"h.t","environment":"127.0.0.1:1","client_id":"c","realm":")" +
               realm + R"(","target":")" + service + R"(/.default","token_type":"Bearer","secret":")" + secret +
               R"(","username":"U@x","expires_on":")" + expiry + "\"}";
    };
    const std::string storage = "https://storage.azure.com";
    return R"({"AccessToken":{)" + entry("1", "t", "other", "https://management.core.windows.net/") + ',' +
           entry("2", "other", "other", storage) + ',' + entry("3", "t", "cached", storage) + R"(},"Account":{)" +
           entry("a", "t", "", "") + R"(},"RefreshToken":{)" + entry("r", "", refreshToken, "") + "}}";
}

/// The file of subscriptions with a login.
std::string login(const std::string& user, const char* isDefault = "true")
{
    return "\xEF\xBB\xBF{\"subscriptions\":[{\"isDefault\":false},{\"isDefault\":" + std::string(isDefault) +
           R"(,"tenantId":"t","user":{)" + user + "}}]}";
}

const std::string user = login(R"("name":"u@x","type":"user")");

TEST_F(CredentialsTest, ComeFromTheFirstPlaceThatHasSome)
{
    write("token", "fileS3CRET\n");
    const std::string valid = cacheOf("4102444800");
    const std::string expired = cacheOf("1");
    const std::string scope = " scope=https://storage.azure.com/.default.";
    const auto app = [](const char* name, const char* proof, const char* id) -> Environment::Variables {
        return {{"AZURE_TENANT_ID", "t/"}, {"AZURE_CLIENT_ID", id}, {name, proof}};
    };
    const char* const secret = "AZURE_CLIENT_SECRET";
    const char* const tokenFile = "AZURE_FEDERATED_TOKEN_FILE";
    const char* const endpoint = "IDENTITY_ENDPOINT";
    const char* const text = "AZURE_STORAGE_CONNECTION_STRING";
    const struct
    {
        std::string expected; // a part of the outcome
        Environment::Variables variables = {};
        std::string config = {};
        std::string logins = {};
        std::string cache = {};
        std::string encrypted = {};
    } rows[] = {
        {"AZURE_STORAGE_SAS_TOKEN are not set; AZURE_CLIENT_SECRET and AZURE_FEDERATED_TOKEN_FILE are not set; "
         "IDENTITY_ENDPOINT is not set; connection_string of [storage] in "},
        {"k==//.", {{text, "x=y;AccountName=a;accountkey=k==;"}, {"AZURE_STORAGE_KEY", "o"}}},
        {"/s=1&t/.", {{text, "SharedAccessSignature=?s=1&t"}}},
        {"has neither AccountKey", {{text, "UseDevelopmentStorage=true"}}},
        {"must be like NAME=VALUE", {{text, "S3CRET"}}},
        {"AccountName of AZURE_STORAGE_CONNECTION_STRING is \"b\"", {{text, "AccountName=b;AccountKey=k"}}},
        {"k//.", {{"AZURE_STORAGE_KEY", "k"}, {"AZURE_STORAGE_ACCOUNT", "a"}, {"AZURE_STORAGE_SAS_TOKEN", "s"}}},
        {"AZURE_STORAGE_ACCOUNT is \"b\"", {{"AZURE_STORAGE_KEY", "k"}, {"AZURE_STORAGE_ACCOUNT", "b"}}},
        {"control character", {{"AZURE_STORAGE_KEY", "S3CRET\n"}}},
        {"//t%2F/oauth2/v2.0/token client_id=c client_secret=S3CRET grant_type=client_credentials" + scope,
            app(secret, "S3CRET", "c")},
        {"AZURE_CLIENT_SECRET is set without AZURE_CLIENT_ID", app(secret, "S3CRET", "")},
        {"AZURE_CLIENT_CERTIFICATE_PATH is set", app("AZURE_CLIENT_CERTIFICATE_PATH", "/c", "c")},
        {"\"refused\" of AZURE_CLIENT_ID, returned status 401 \"invalid_client\": \"No such client.\"",
            app(secret, "S3CRET", "refused")},
        {"it has no access_token", app(secret, "S3CRET", "empty")},
        {"client_assertion=fileS3CRET client_assertion_type=urn:ietf:params:oauth:client-assertion-type:jwt-bearer",
            app(tokenFile, "~/token", "c")},
        {"which AZURE_FEDERATED_TOKEN_FILE names: No such", app(tokenFile, "/none", "c")},
        {"///app?api-version=2019-08-01&client_id=c&resource=https://storage.azure.com/",
            {{endpoint, server->url() + "/app"}, {"IDENTITY_HEADER", "S3CRET"}, {"AZURE_CLIENT_ID", "c"}}},
        {"no credentials: status 400", {{endpoint, server->url() + "/app"}, {"IDENTITY_HEADER", "x"}}},
        {"Azure Arc are not supported; connection_string", {{endpoint, server->url()}, {"IMDS_ENDPOINT", "x"}}},
        {"IDENTITY_ENDPOINT must be", {{endpoint, "http://169.254.example"}, {"IDENTITY_HEADER", "x"}}},
        {"k//.", {}, "[core]\nkey=x\n[storage]\naccount = a\nkey = k\n", user, valid},
        {"k//.", {{"AZURE_CONFIG_DIR", home / ".azure"}, {"HOME", ""}}, "[storage]\nconnection_string=AccountKey=k\n"},
        {"config is \"b\", not \"a\"; no login", {}, "[storage]\naccount=b\nsas_token=s\n"},
        {"config, line 1: ", {}, "S3CRET"},
        {"//cached.", {}, "", user, valid},
        {"///t/oauth2/v2.0/token client_id=c grant_type=refresh_token refresh_token=good" + scope, {}, "", user,
            expired},
        {"No such client.\"; run \"az login\"", {}, "", user, cacheOf("1", "old")},
        {"has no refresh token of user \"v\"", {}, "", login(R"("name":"v","type":"user")"), valid},
        {"never: the identity service at https://127.0.0.1:1, asked for the login of user \"u@x\" in ",
            {{"AZURE_AUTHORITY_HOST", ""}}, "", user, expired},
        {"AZURE_AUTHORITY_HOST must be", {{"AZURE_AUTHORITY_HOST", "http://169.254.170.2"}}, "", user, expired},
        {"msal_token_cache.bin is encrypted", {}, "", user, "", "x"},
        {"azureProfile.json: it is not JSON", {}, "", "S3CRET{"},
        {"has no default subscription", {}, "", login("", "false")},
        {"is not a user's", {}, "", login(R"("name":"c","type":"servicePrincipal")")},
        {"AZURE_CLIENT_ID names another identity", {{"AZURE_CLIENT_ID", "c"}}, "[storage]\nkey=k\n", user, valid},
        {"///metadata/identity/oauth2/token?api-version=2018-02-01&resource=https://storage.azure.com/",
            {{"AZURE_METADATA_DISABLED", ""}}, "", login(R"("type":"servicePrincipal","assignedIdentityInfo":"MSI")")},
        {"no token: status 401", {{"AZURE_METADATA_DISABLED", ""}, {"AZURE_CLIENT_ID", "refused"}}},
        {"later: ", {{"AZURE_METADATA_DISABLED", ""}, {"AZURE_CLIENT_ID", "moving"}}},
    };
    for (const auto& row : rows)
    {
        write(".azure/config", row.config);
        write(".azure/azureProfile.json", row.logins);
        write(".azure/msal_token_cache.json", row.cache);
        write(".azure/msal_token_cache.bin", row.encrypted);
        std::string outcome = outcomeOf(*source(row.variables));
        std::replace(outcome.begin(), outcome.end(), '&', row.expected.find('&') == std::string::npos ? ' ' : '&');
        EXPECT_THAT(outcome, HasSubstr(row.expected));
    }
}

TEST_F(CredentialsTest, AreReplacedWhenTheStoreHasRefusedThem)
{
    write(".azure/azureProfile.json", user);
    write(".azure/msal_token_cache.json", cacheOf("4102444800"));
    const auto login = source({});
    const auto machine = source({{"AZURE_METADATA_DISABLED", ""}, {"AZURE_CLIENT_ID", "c"}});
    EXPECT_EQ(outcomeOf(*login), "//cached.");
    EXPECT_THAT(outcomeOf(*machine), HasSubstr("client_id=c"));
    now += 10s;
    login->refresh(); // the cached token was refused
    EXPECT_THAT(outcomeOf(*login), HasSubstr("refresh_token=good"));
    server.reset();
    now += 10s;
    login->refresh();
    machine->refresh();
    EXPECT_THAT(outcomeOf(*login), HasSubstr("later: ")) << "must not go back to the first one";
    EXPECT_THAT(outcomeOf(*machine), HasSubstr("later: "));
}

TEST_F(CredentialsTest, ComeFromTheEnvironmentOfTheProcess)
{
    server.reset(); // it has a thread
    const auto report = []
    {
        ::clearenv();
        ::setenv("AZURE_METADATA_DISABLED", "true", 1);
        ::setenv("IDENTITY_ENDPOINT", "http://127.0.0.1:1", 1);
        std::cerr << outcomeOf(*defaultCredentials("a"));
        ::setenv("AZURE_STORAGE_KEY", "k", 1);
        std::cerr << outcomeOf(*defaultCredentials("a")) << outcomeOf(*fixedCredentials({.sas = "s"}));
        std::_Exit(0);
    };
    // In a process of its own, whose environment it may change.
    EXPECT_EXIT(report(), testing::ExitedWithCode(0), "IDENTITY_ENDPOINT is set without IDENTITY_HEADERk//./s/.");
}

} // namespace

} // namespace storage::clients::azure
