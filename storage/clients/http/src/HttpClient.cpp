#include <storage/clients/http/HttpClient.hpp>

#include <curl/curl.h>
#include <fmt/format.h>
#include <linux/tcp.h>
#include <netinet/in.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509_vfy.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <exception>
#include <new>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace storage::clients
{

namespace
{

constexpr std::size_t maxIdle = 64;           // connections; others are closed after their request
constexpr std::size_t maxBodySize = 64 << 20; // bytes; a listing of 1,000 long keys has 2 MiB
constexpr long bufferSize = 256 * 1024;       // bytes; fewer, larger reads and writes take less time
constexpr int maxWait = 100;                  // ms, until the next look at an interrupt

/// Never cleans up: threads and static objects of the host may still send requests while the process exits. If the host
/// has initialised OpenSSL before, its options remain.
void initialiseOnce()
{
    static const CURLcode result = []
    {
        OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr);
        return curl_global_init(CURL_GLOBAL_DEFAULT);
    }();
    if (result != CURLE_OK)
    {
        throw std::runtime_error(curl_easy_strerror(result));
    }
}

/// @param file  empty: the system's own
std::shared_ptr<X509_STORE> readAuthorities(const std::filesystem::path& file)
{
    std::shared_ptr<X509_STORE> store(X509_STORE_new(), &X509_STORE_free);
    if (!store)
    {
        throw std::bad_alloc();
    }
    const curl_version_info_data& defaults = *curl_version_info(CURLVERSION_NOW);
    const std::string path = file.empty() && defaults.cainfo != nullptr ? defaults.cainfo : file.string();
    if (!path.empty() && X509_STORE_load_file(store.get(), path.c_str()) != 1)
    {
        ERR_clear_error();
        throw HttpFailure(HttpFailure::Kind::Invalid, "the certificate authorities in \"" + path + "\" cannot be read");
    }
    if (file.empty() && defaults.capath != nullptr) // the system's folder would be used in addition to the file
    {
        X509_STORE_load_path(store.get(), defaults.capath);
    }
    // As libcurl does: an intermediate authority is trusted if it is in the file.
    X509_STORE_set_flags(store.get(), X509_V_FLAG_TRUSTED_FIRST | X509_V_FLAG_PARTIAL_CHAIN);
    return store;
}

HttpFailure::Kind kindOf(CURLcode code, bool connected)
{
    switch (code)
    {
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_RESOLVE_PROXY:
    case CURLE_COULDNT_CONNECT:
    case CURLE_SSL_CONNECT_ERROR: // the server does not speak TLS, or no common version
        return HttpFailure::Kind::Unreachable;
    case CURLE_OPERATION_TIMEDOUT:
        return connected ? HttpFailure::Kind::Stalled : HttpFailure::Kind::Unreachable;
    case CURLE_PEER_FAILED_VERIFICATION:
    case CURLE_SSL_INVALIDCERTSTATUS:
    case CURLE_SSL_ISSUER_ERROR:
        return HttpFailure::Kind::Certificate;
    case CURLE_ABORTED_BY_CALLBACK:
        return HttpFailure::Kind::Interrupted;
    case CURLE_SSL_CACERT_BADFILE:
    case CURLE_URL_MALFORMAT:
        return HttpFailure::Kind::Invalid;
    case CURLE_UNSUPPORTED_PROTOCOL: // of the URL, or of the response
        return connected ? HttpFailure::Kind::Unusable : HttpFailure::Kind::Invalid;
    case CURLE_BAD_CONTENT_ENCODING:
    case CURLE_WEIRD_SERVER_REPLY:
        return HttpFailure::Kind::Unusable;
    default:
        return HttpFailure::Kind::Broken;
    }
}

} // namespace

struct HttpClient::Connection
{
    Connection()
    {
        if (!transfers || !handle)
        {
            throw std::bad_alloc();
        }
    }

    std::vector<curl_socket_t> sockets; // that are open

    /// Keeps the connection of the last request. Has one transfer at a time, so that the thread that waits for it can
    /// do something else in between, as it could not in curl_easy_perform().
    const std::unique_ptr<CURLM, decltype(&curl_multi_cleanup)> transfers{curl_multi_init(), &curl_multi_cleanup};
    const std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> handle{curl_easy_init(), &curl_easy_cleanup};
};

/// One running request: receives the library's callbacks.
class HttpClient::Transfer
{
public:
    Transfer(Connection& connection, std::shared_ptr<X509_STORE> authorities, const Settings& settings,
        const HttpRequest& request, const Receiver& receiver)
        : m_sockets(connection.sockets)
        , m_transfers(connection.transfers.get())
        , m_handle(connection.handle.get())
        , m_authorities(std::move(authorities))
        , m_request(request)
        , m_receiver(receiver)
    {
        curl_easy_reset(m_handle); // connections stay
        set(CURLOPT_ERRORBUFFER, m_message.data());
        set(CURLOPT_NOSIGNAL, 1L);
        set(CURLOPT_URL, request.url.c_str());
        set(CURLOPT_PATH_AS_IS, 1L);
        set(CURLOPT_HTTP_VERSION, CURL_HTTP_VERSION_1_1);
        set(CURLOPT_PROTOCOLS_STR, "http,https");
        set(CURLOPT_BUFFERSIZE, bufferSize);
        set(CURLOPT_UPLOAD_BUFFERSIZE, bufferSize);
        if (m_authorities != nullptr)
        {
            set(CURLOPT_CAINFO, nullptr); // they would be read in addition, for each connection
            set(CURLOPT_CAPATH, nullptr);
            set(CURLOPT_SSL_CTX_FUNCTION, &onContext);
            set(CURLOPT_SSL_CTX_DATA, m_authorities.get());
        }
        if (request.bypassProxy)
        {
            set(CURLOPT_PROXY, "");
        }
        const bool isInterrupted = settings.interrupted && settings.interrupted();
        if (isInterrupted && request.method != "DELETE") // which cleans up
        {
            throw HttpFailure(HttpFailure::Kind::Interrupted, "not sent because of an interrupt");
        }
        setLimits(settings.timeouts, isInterrupted);
        if (settings.interrupted && !isInterrupted)
        {
            m_interrupted = settings.interrupted;
            m_timeAfterInterrupt = request.uninterruptible ? settings.timeouts.cleanUp : std::chrono::milliseconds(0);
        }
        set(CURLOPT_SOCKOPTFUNCTION, &onOpen);
        set(CURLOPT_SOCKOPTDATA, &connection.sockets);
        set(CURLOPT_CLOSESOCKETFUNCTION, &onClose);
        set(CURLOPT_CLOSESOCKETDATA, &connection.sockets); // used until the connection is closed
        set(CURLOPT_PREREQFUNCTION, &onSend);
        set(CURLOPT_PREREQDATA, this);
        setMethod();
        for (const HttpHeaders::Field& field : request.headers)
        {
            requireOneLine(field);
            // The library omits a field without a value unless it is written with a semicolon.
            addField(field.value.empty() ? field.name + ";" : field.name + ": " + field.value);
        }
        addField("Expect:"); // do not wait for "100 Continue" before the body, which takes a round trip
        set(CURLOPT_HTTPHEADER, m_fields);
        set(CURLOPT_HEADERFUNCTION, &onHeader);
        set(CURLOPT_HEADERDATA, this);
        set(CURLOPT_WRITEFUNCTION, &onBody);
        set(CURLOPT_WRITEDATA, this);
    }
    Transfer(const Transfer&) = delete;
    Transfer& operator=(const Transfer&) = delete;
    ~Transfer()
    {
        curl_easy_setopt(m_handle, CURLOPT_ERRORBUFFER, nullptr); // the handle outlives the buffer
        curl_slist_free_all(m_fields);
    }

    HttpResponse run()
    {
        CURLcode code = runOnce();
        if (code == CURLE_SEND_ERROR && isReusedConnection() && !m_delivered)
        {
            // The server closed the connection while the request was being sent, so it has not received all of it. The
            // library itself only resends requests that fail later.
            code = runOnce();
        }
        if (m_thrown)
        {
            std::rethrow_exception(m_thrown);
        }
        if (code != CURLE_OK)
        {
            curl_off_t connectTime = 0;
            curl_easy_getinfo(m_handle, CURLINFO_PRETRANSFER_TIME_T, &connectTime);
            const HttpFailure::Kind kind = kindOf(code, connectTime > 0);
            throw HttpFailure(
                kind, std::string(kind == HttpFailure::Kind::Unusable ? "the response is not HTTP: " : "") +
                          (m_message[0] != '\0' ? m_message.data() : curl_easy_strerror(code)));
        }
        if (m_response.status == 0) // curl does not report this as an error
        {
            throw HttpFailure(HttpFailure::Kind::Broken, "the response ended before its header was complete");
        }
        if (m_receiver && isReceived() && !m_delivered)
        {
            m_receiver(m_response, {});
        }
        m_response.wasSentTwice = m_sends > 1;
        return std::move(m_response);
    }

private:
    CURLcode runOnce()
    {
        if (m_request.body != nullptr)
        {
            m_request.body->rewind();
        }
        m_sends = 0;
        require(curl_multi_add_handle(m_transfers, m_handle));
        const auto end = [this](CURL* handle) { curl_multi_remove_handle(m_transfers, handle); };
        const std::unique_ptr<CURL, decltype(end)> running(m_handle, end);
        for (;;)
        {
            int count = 0;
            require(curl_multi_perform(m_transfers, &count));
            if (count == 0)
            {
                return curl_multi_info_read(m_transfers, &count)->data.result;
            }
            if (isCancelled())
            {
                throw HttpFailure(HttpFailure::Kind::Interrupted, "cancelled because of an interrupt");
            }
            checkStall();
            const auto begin = std::chrono::steady_clock::now();
            require(curl_multi_poll(m_transfers, nullptr, 0, maxWait, nullptr));
            m_waited += std::chrono::steady_clock::now() - begin;
        }
    }

    /// Fail when too few bytes have moved while this thread waited for them. Time during which the caller produces the
    /// request's body, or takes that of the response, does not count.
    void checkStall()
    {
        const std::uint64_t moved = movedBytes();
        m_movedBefore = std::min(m_movedBefore, moved); // fewer than before: a new connection
        if (m_sends == 0 || moved - m_movedBefore >= m_stallBytes)
        {
            m_movedBefore = moved;
            m_waited = {};
        }
        if (m_waited > m_stallWindow)
        {
            throw HttpFailure(HttpFailure::Kind::Stalled, fmt::format("fewer than {} bytes moved in {} s", m_stallBytes,
                                                              std::chrono::duration<double>(m_stallWindow).count()));
        }
    }

    /// The bytes that have arrived, at either end of the connection. Bytes that were only handed to the kernel may wait
    /// in its buffer for minutes.
    std::uint64_t movedBytes() const
    {
        std::uint64_t moved = 0;
        for (const curl_socket_t socket : m_sockets)
        {
            tcp_info info{};
            socklen_t size = sizeof info;
            ::getsockopt(socket, IPPROTO_TCP, TCP_INFO, &info, &size);
            moved += info.tcpi_bytes_acked + info.tcpi_bytes_received;
        }
        if (moved == 0) // the kernel does not count them, as in some sandboxes
        {
            curl_off_t sent = 0;
            curl_off_t received = 0;
            curl_easy_getinfo(m_handle, CURLINFO_SIZE_UPLOAD_T, &sent);
            curl_easy_getinfo(m_handle, CURLINFO_SIZE_DOWNLOAD_T, &received);
            moved = static_cast<std::uint64_t>(sent + received);
        }
        return moved;
    }

    static void require(CURLMcode code)
    {
        if (code != CURLM_OK)
        {
            throw HttpFailure(HttpFailure::Kind::Broken, curl_multi_strerror(code));
        }
    }

    /// Whether the last attempt used a connection opened by an earlier request.
    bool isReusedConnection() const
    {
        long opened = 0;
        curl_easy_getinfo(m_handle, CURLINFO_NUM_CONNECTS, &opened);
        return opened == 0;
    }

    template <typename Value>
    void set(CURLoption option, Value value)
    {
        const CURLcode code = curl_easy_setopt(m_handle, option, value);
        if (code != CURLE_OK)
        {
            throw HttpFailure(HttpFailure::Kind::Invalid, curl_easy_strerror(code));
        }
    }

    void setLimits(const HttpTimeouts& timeouts, bool isInterrupted)
    {
        const std::uint64_t sent = m_request.body == nullptr ? 0 : m_request.body->size();
        const auto longest = m_request.deadline.value_or(
            timeouts.request + std::chrono::milliseconds(sent * 1'000 / timeouts.sendBytesPerSecond));
        const auto deadline = isInterrupted ? std::min(longest, timeouts.cleanUp) : longest;
        set(CURLOPT_TIMEOUT_MS, static_cast<long>(deadline.count()));
        set(CURLOPT_CONNECTTIMEOUT_MS,
            static_cast<long>(std::min<std::chrono::milliseconds>(timeouts.connect, deadline).count()));
        m_stallWindow = m_request.stallWindow.value_or(timeouts.stallWindow);
        m_stallBytes = static_cast<std::uint64_t>(timeouts.stallBytesPerSecond * m_stallWindow.count() / 1000);
    }

    bool isCancelled()
    {
        if (!m_interrupted || !m_interrupted())
        {
            return false;
        }
        const auto now = std::chrono::steady_clock::now();
        m_cancelTime = m_cancelTime.value_or(now + m_timeAfterInterrupt);
        return now >= *m_cancelTime;
    }

    void setMethod()
    {
        if (m_request.method == "HEAD")
        {
            set(CURLOPT_NOBODY, 1L);
            return;
        }
        const bool sendsBody = m_request.body != nullptr || m_request.method == "PUT" || m_request.method == "POST";
        if (sendsBody)
        {
            set(CURLOPT_UPLOAD, 1L);
            set(CURLOPT_INFILESIZE_LARGE,
                static_cast<curl_off_t>(m_request.body == nullptr ? 0 : m_request.body->size()));
            set(CURLOPT_READFUNCTION, &onRead);
            set(CURLOPT_READDATA, this);
            set(CURLOPT_SEEKFUNCTION, &onSeek);
            set(CURLOPT_SEEKDATA, this);
        }
        set(CURLOPT_CUSTOMREQUEST, m_request.method.c_str());
    }

    /// The library does not escape a line break: the text after it would become another field.
    static void requireOneLine(const HttpHeaders::Field& field)
    {
        const auto isControl = [](char letter) { return (letter >= 0 && letter < ' ') || letter == 0x7F; };
        if (std::any_of(field.value.begin(), field.value.end(), isControl))
        {
            throw HttpFailure(
                HttpFailure::Kind::Invalid, "the header field " + field.name + " contains a control character");
        }
    }

    void addField(const std::string& line)
    {
        curl_slist* const longer = curl_slist_append(m_fields, line.c_str());
        if (longer == nullptr)
        {
            throw std::bad_alloc();
        }
        m_fields = longer;
    }

    bool isReceived() const noexcept { return m_response.status == 200 || m_response.status == 206; }

    /// Run code that may throw in a C callback. An exception is kept until the library has returned.
    template <typename Body>
    static std::size_t guarded(void* self, std::size_t failure, Body&& body) noexcept
    {
        auto& transfer = *static_cast<Transfer*>(self);
        try
        {
            return body(transfer);
        }
        catch (...)
        {
            transfer.m_thrown = std::current_exception();
            return failure;
        }
    }

    static CURLcode onContext(CURL*, void* context, void* authorities) noexcept
    {
        SSL_CTX_set1_cert_store(static_cast<SSL_CTX*>(context), static_cast<X509_STORE*>(authorities));
        return CURLE_OK;
    }

    static std::size_t onRead(char* target, std::size_t size, std::size_t count, void* self) noexcept
    {
        return guarded(self, CURL_READFUNC_ABORT,
            [&](Transfer& transfer) -> std::size_t
            { return transfer.m_request.body == nullptr ? 0 : transfer.m_request.body->read(target, size * count); });
    }

    static int onOpen(void* sockets, curl_socket_t socket, curlsocktype) noexcept
    {
        static_cast<std::vector<curl_socket_t>*>(sockets)->push_back(socket);
        return CURL_SOCKOPT_OK;
    }

    static int onClose(void* sockets, curl_socket_t socket) noexcept
    {
        std::erase(*static_cast<std::vector<curl_socket_t>*>(sockets), socket);
        return ::close(socket);
    }

    /// Called before the request is sent. If a reused connection breaks without a response, the library sends it again.
    static int onSend(void* self, char*, char*, int, int) noexcept
    {
        auto& transfer = *static_cast<Transfer*>(self);
        transfer.m_waited = {};
        ++transfer.m_sends;
        return CURL_PREREQFUNC_OK;
    }

    static int onSeek(void* self, curl_off_t offset, int origin) noexcept
    {
        if (offset != 0 || origin != SEEK_SET)
        {
            return CURL_SEEKFUNC_CANTSEEK;
        }
        const auto result = guarded(self, CURL_SEEKFUNC_FAIL,
            [](Transfer& transfer) -> std::size_t
            {
                if (transfer.m_request.body != nullptr)
                {
                    transfer.m_request.body->rewind();
                }
                return CURL_SEEKFUNC_OK;
            });
        return static_cast<int>(result);
    }

    static std::size_t onHeader(char* bytes, std::size_t size, std::size_t count, void* self) noexcept
    {
        return guarded(self, 0,
            [&](Transfer& transfer)
            {
                transfer.takeHeaderLine({bytes, size * count});
                return size * count;
            });
    }

    static std::size_t onBody(char* bytes, std::size_t size, std::size_t count, void* self) noexcept
    {
        return guarded(self, 0,
            [&](Transfer& transfer)
            {
                transfer.takeBody({bytes, size * count});
                return size * count;
            });
    }

    void takeHeaderLine(std::string_view line)
    {
        while (!line.empty() && (line.back() == '\r' || line.back() == '\n'))
        {
            line.remove_suffix(1);
        }
        if (line.starts_with("HTTP/"))
        {
            m_response = {}; // discards an interim response
            return;
        }
        if (line.empty())
        {
            long status = 0;
            curl_easy_getinfo(m_handle, CURLINFO_RESPONSE_CODE, &status);
            m_response.status = static_cast<int>(status);
            return;
        }
        const std::size_t colon = line.find(':');
        if (colon != std::string_view::npos)
        {
            std::string_view value = line.substr(colon + 1);
            value.remove_prefix(std::min(value.find_first_not_of(" \t"), value.size()));
            m_response.headers.add(std::string(line.substr(0, colon)), std::string(value));
        }
    }

    void takeBody(std::string_view bytes)
    {
        if (m_receiver && isReceived())
        {
            m_delivered = true;
            m_receiver(m_response, bytes);
            return;
        }
        if (bytes.size() > maxBodySize - m_response.body.size())
        {
            throw HttpFailure(HttpFailure::Kind::Unusable, "the response is longer than 64 MiB");
        }
        m_response.body += bytes;
    }

    const std::vector<curl_socket_t>& m_sockets;
    CURLM* const m_transfers;
    CURL* const m_handle;
    const std::shared_ptr<X509_STORE> m_authorities; // null: the request does not use TLS
    const HttpRequest& m_request;
    const Receiver& m_receiver;
    curl_slist* m_fields = nullptr;
    std::array<char, CURL_ERROR_SIZE> m_message{};
    HttpResponse m_response;
    bool m_delivered = false;
    unsigned m_sends = 0; // by the library, in the last runOnce()
    std::chrono::milliseconds m_stallWindow{0};
    std::uint64_t m_stallBytes = 0;                  // a request that moves fewer in the window has stalled
    std::uint64_t m_movedBefore = 0;                 // movedBytes() when m_waited was 0
    std::chrono::steady_clock::duration m_waited{0}; // for the next m_stallBytes
    std::function<bool()> m_interrupted;
    std::chrono::milliseconds m_timeAfterInterrupt{0};
    std::optional<std::chrono::steady_clock::time_point> m_cancelTime; // empty: not interrupted
    std::exception_ptr m_thrown;
};

HttpClient::HttpClient(Settings settings)
    : m_settings(std::move(settings))
{
    initialiseOnce();
}

HttpClient::~HttpClient() = default;

HttpResponse HttpClient::perform(const HttpRequest& request, const Receiver& receiver)
{
    // After a failure the connection is closed: the rest of the failed response may still be in transit on it.
    std::unique_ptr<Connection> connection = acquire();
    const bool usesTls = request.url.starts_with("https:");
    HttpResponse response =
        Transfer(*connection, usesTls ? authorities() : nullptr, m_settings, request, receiver).run();
    release(std::move(connection));
    return response;
}

/// The certificate authorities, parsed once for all connections: the system's take 25 ms of processor time. Parsed
/// again after a day, because they change.
std::shared_ptr<X509_STORE> HttpClient::authorities()
{
    const std::lock_guard lock(m_mutex);
    const auto now = std::chrono::steady_clock::now();
    if (!m_authorities || now > m_authoritiesRead + std::chrono::hours(24))
    {
        m_authorities = readAuthorities(m_settings.authorities);
        m_authoritiesRead = now;
    }
    return m_authorities;
}

std::unique_ptr<HttpClient::Connection> HttpClient::acquire()
{
    {
        const std::lock_guard lock(m_mutex);
        if (!m_idle.empty())
        {
            std::unique_ptr<Connection> connection = std::move(m_idle.back());
            m_idle.pop_back();
            return connection;
        }
    }
    return std::make_unique<Connection>();
}

void HttpClient::release(std::unique_ptr<Connection> connection)
{
    const std::lock_guard lock(m_mutex);
    if (m_idle.size() < maxIdle)
    {
        m_idle.push_back(std::move(connection));
    }
}

} // namespace storage::clients
