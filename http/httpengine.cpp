#include "http/httpengine.h"

#include "http/httpconnection.h"

#include <algorithm>
#include <cstring>
#include <microhttpd.h>
#include <netinet/in.h>
#include <QCoreApplication>
#include <QDebug>
#include <QVersionNumber>
#include <sys/resource.h>
#include <sys/socket.h>

namespace {

using std::chrono::milliseconds;

/// A refusal that the library made by itself: it tells it only in its log, on the same thread.
struct LibraryRefusal {
    int status = 0; ///< 0: none
    QByteArray reason;
};
thread_local LibraryRefusal libraryRefusal;

/// From "Error processing request (HTTP response code is 400 ('<html>…<title>Request malformed</title>…".
LibraryRefusal parseRefusal(const QByteArray& message) {
    const auto between = [&message](const char* begin, const char* end) {
        const int from = message.indexOf(begin) + static_cast<int>(std::strlen(begin));
        return message.mid(from, message.indexOf(end, from) - from);
    };
    return {between("code is ", " ").toInt(), between("<title>", "</title>")};
}

/// What an operator must know of what the library logs; the rest is clients that went away.
constexpr const char* LibraryAlarms[] = {"Hit process or system resource limit", "Error accepting",
                                         "Call to epoll", "Error allocating"};

void onLibraryMessage(void* engine, const char* format, va_list arguments) {
    char text[256];
    std::vsnprintf(text, sizeof text, format, arguments);
    const QByteArray message = QByteArray(text).trimmed();
    if (message.startsWith("Error processing request")) {
        libraryRefusal = parseRefusal(message);
        HttpConnection::refuseMalformedLengths();
    }
    for (const char* alarm : LibraryAlarms) {
        if (message.startsWith(alarm))
            static_cast<HttpEngine*>(engine)->refusals().note(message.constData());
    }
    // Without a descriptor for the first connection the library tries again and again. This thread has
    // nothing else to do then.
    constexpr milliseconds pause{50};
    if (message.startsWith("Hit process or system resource limit at FIRST"))
        std::this_thread::sleep_for(pause);
}

QHostAddress peerOf(MHD_Connection* connection) {
    const auto* info = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CLIENT_ADDRESS);
    QHostAddress peer(info->client_addr);
    bool isMapped = false;
    const QHostAddress ipv4(peer.toIPv4Address(&isMapped));
    return isMapped ? ipv4 : peer;
}

int descriptorOf(MHD_Connection* connection) {
    return MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD)->connect_fd;
}

HttpSocket* socketOf(MHD_Connection* connection) {
    const auto* info = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_SOCKET_CONTEXT);
    return static_cast<HttpSocket*>(info->socket_context);
}

void onSocket(void* engine, MHD_Connection* connection, void** context, MHD_ConnectionNotificationCode code) {
    auto& guard = static_cast<HttpEngine*>(engine)->guard();
    if (code == MHD_CONNECTION_NOTIFY_STARTED) {
        auto socket = std::make_unique<HttpSocket>();
        socket->descriptor = descriptorOf(connection);
        socket->peer = peerOf(connection);
        ::setsockopt(socket->descriptor, SOL_SOCKET, SO_SNDBUF, &HttpEngine::SendBuffer,
                     sizeof HttpEngine::SendBuffer);
        guard.add(socket.get());
        static_cast<HttpEngine*>(engine)->connectionBegins();
        *context = socket.release();
    } else {
        const std::unique_ptr<HttpSocket> socket(static_cast<HttpSocket*>(*context));
        // Refused for its very first line, before there was a request.
        if (const auto refusal = std::exchange(libraryRefusal, {}); refusal.status != 0)
            static_cast<HttpEngine*>(engine)->refusals().add(socket->peer, refusal.status,
                                                             refusal.reason.constData());
        guard.remove(socket.get());
        static_cast<HttpEngine*>(engine)->connectionEnds();
    }
}

void* onRequestLine(void* engine, const char* uri, MHD_Connection* connection) {
    return new HttpConnection(*static_cast<HttpEngine*>(engine), connection, socketOf(connection), uri);
}

MHD_Result onRequest(void*, MHD_Connection*, const char*, const char* method, const char* version,
                     const char* data, std::size_t* size, void** context) {
    libraryRefusal = {};
    auto* request = static_cast<HttpConnection*>(*context);
    if (!request)
        return MHD_NO;
    return request->proceed(method, version, data, size) ? MHD_YES : MHD_NO;
}

void onRequestEnd(void*, MHD_Connection*, void** context, MHD_RequestTerminationCode code) {
    const std::unique_ptr<HttpConnection> request(static_cast<HttpConnection*>(*context));
    *context = nullptr;
    const auto refusal = std::exchange(libraryRefusal, {});
    if (request && code == MHD_REQUEST_TERMINATED_WITH_ERROR && refusal.status != 0)
        request->refusedByLibrary({refusal.status, refusal.reason.constData()});
    if (request)
        request->ended();
}

/// Escapes are decoded by HttpConnection, which tells malformed ones from others.
std::size_t keepEscapes(void*, MHD_Connection*, char* text) {
    return std::strlen(text);
}

} // namespace

unsigned int httpConnectionLimit() {
    constexpr rlim_t least = 64;
    constexpr rlim_t most = 16384;
    rlimit descriptors{};
    if (::getrlimit(RLIMIT_NOFILE, &descriptors) != 0)
        return static_cast<unsigned int>(least);
    return static_cast<unsigned int>(std::clamp(descriptors.rlim_cur / 4, least, most));
}

bool AnswerBudget::take(qint64 bytes) {
    const qint64 before = memory.fetch_add(bytes);
    if (before == 0 || bytes <= Outcome || before + bytes <= MaxMemory)
        return true;
    memory -= bytes;
    return false;
}

bool HttpEngine::libraryIsStrict() {
    static const bool isStrict =
        QVersionNumber::fromString(QLatin1String(MHD_get_version())) >= QVersionNumber(0, 9, 77);
    return isStrict;
}

HttpEngine::HttpEngine(int listenSocket, const HttpListenerSettings& settings, HttpRequestHandler* handler,
                       HttpRequestHandler* files, const sqlite* database)
    : m_settings(settings)
    , m_handler(handler)
    , m_files(files)
    , m_workers(settings.workers, database)
    , m_guard(settings.readTimeout, m_connectionLimit - m_connectionLimit / 8) {
    constexpr unsigned int flags =
        MHD_USE_EPOLL_INTERNAL_THREAD | MHD_ALLOW_SUSPEND_RESUME | MHD_USE_ERROR_LOG;
    const int strict = libraryIsStrict() ? 1 : 0;
    m_daemon = MHD_start_daemon(
        flags, 0, nullptr, nullptr, &onRequest, this, MHD_OPTION_EXTERNAL_LOGGER, &onLibraryMessage, this,
        MHD_OPTION_LISTEN_SOCKET, listenSocket, MHD_OPTION_THREAD_POOL_SIZE, Threads,
        MHD_OPTION_CONNECTION_LIMIT, m_connectionLimit, MHD_OPTION_CONNECTION_MEMORY_LIMIT, ConnectionMemory,
        MHD_OPTION_CONNECTION_TIMEOUT, static_cast<unsigned int>(StalledDownload.count()),
        MHD_OPTION_STRICT_FOR_CLIENT, strict, MHD_OPTION_NOTIFY_CONNECTION, &onSocket, this,
        MHD_OPTION_URI_LOG_CALLBACK, &onRequestLine, this, MHD_OPTION_NOTIFY_COMPLETED, &onRequestEnd, this,
        MHD_OPTION_UNESCAPE_CALLBACK, &keepEscapes, nullptr, MHD_OPTION_END);
    if (!m_daemon)
        qWarning("HttpListener: the HTTP engine did not start");
}

void HttpEngine::connectionBegins() {
    if (++m_connections == static_cast<int>(m_connectionLimit))
        m_refusals.note("all connections are taken, others wait");
}

HttpEngine::~HttpEngine() {
    if (!m_daemon)
        return;
    // From here on new requests for controllers are refused. Those that run may wait for the main
    // loop, which is this thread.
    m_workers.stop();
    constexpr milliseconds turn{10};
    while (!m_workers.waitIdle(turn))
        QCoreApplication::processEvents(QEventLoop::AllEvents, static_cast<int>(turn.count()));
    m_lateAnswers.end();
    const auto end = std::chrono::steady_clock::now() + FlushTime;
    while (inFlight > 0 && std::chrono::steady_clock::now() < end)
        std::this_thread::sleep_for(turn);
    MHD_stop_daemon(m_daemon);
}
