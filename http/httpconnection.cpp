#include "http/httpconnection.h"

#include "http/connectionguard.h"
#include "http/headedfile.h"
#include "http/httpengine.h"
#include "http/httprequesthandler.h"
#include "http/urlencoded.h"

#include <microhttpd.h>
#include <sys/socket.h>
#include <unistd.h>
#include <unordered_set>

namespace {

constexpr int RetryAfter = 1; ///< s: what is busy now is rarely busy for longer

MHD_Result collectField(void* fields, MHD_ValueKind, const char* name, std::size_t nameSize,
                        const char* value, std::size_t valueSize) {
    static_cast<std::vector<HeaderField>*>(fields)->push_back(
        {{name, nameSize}, {value ? value : "", value ? valueSize : 0}});
    return MHD_YES;
}

QByteArray bytesOf(std::string_view text) {
    return {text.data(), static_cast<int>(text.size())};
}

/// A body on its way to its client.
struct HeldBody {
    QByteArray bytes;
    AnswerBudget& budget;

    HeldBody(QByteArray body, AnswerBudget& taken)
        : bytes(std::move(body))
        , budget(taken) {}
    HeldBody(const HeldBody&) = delete;
    HeldBody& operator=(const HeldBody&) = delete;
    ~HeldBody() { budget.giveBack(bytes.capacity()); }
};

void freeBody(void* body) {
    delete static_cast<HeldBody*>(body);
}

/// The exchanges of this engine thread whose head has begun and is not read yet.
using Heads = std::unordered_set<HttpConnection*>;
Heads& headsUnderWay() {
    thread_local Heads heads;
    return heads;
}

using ResponsePointer = HttpConnection::ResponsePointer;

/// Null when the budget, of which the response takes the body's memory, is spent.
ResponsePointer bodyResponse(QByteArray body, AnswerBudget& budget) {
    if (!budget.take(body.capacity()))
        return nullptr;
    auto held = std::make_unique<HeldBody>(std::move(body), budget);
    const auto size = static_cast<std::size_t>(held->bytes.size());
    const char* data = held->bytes.constData();
    ResponsePointer response(MHD_create_response_from_buffer_with_free_callback_cls(
        size, const_cast<char*>(data), &freeBody, held.get()));
    if (response)
        held.release(); // NOLINT(bugprone-unused-return-value): the response frees it
    return response;
}

} // namespace

void HttpConnection::ResponseDeleter::operator()(MHD_Response* response) const {
    MHD_destroy_response(response);
}

HttpConnection::HttpConnection(HttpEngine& engine, MHD_Connection* connection, HttpSocket* socket,
                               QByteArray target)
    : m_engine(engine)
    , m_connection(connection)
    , m_socket(socket)
    , m_target(std::move(target)) {
    headsUnderWay().insert(this);
}

HttpConnection::~HttpConnection() {
    headsUnderWay().erase(this);
    if (m_isInFlight)
        --m_engine.inFlight;
}

bool HttpConnection::proceed(const char* method, const char* version, const char* data, std::size_t* size) {
    switch (m_stage) {
    case Stage::Head:
        return takeHead(method, version);
    case Stage::Body: {
        if (*size == 0)
            return takeEnd();
        const std::size_t taken = std::exchange(*size, 0);
        return takeBody(data, taken);
    }
    case Stage::Working:
        return true;
    case Stage::Answer:
        return answer();
    case Stage::Refused:
        return false;
    }
    return false;
}

bool HttpConnection::takeHead(const char* method, const char* version) {
    headsUnderWay().erase(this);
    BodyLength body;
    const auto refusal = readHead(method, version, &body);
    m_fields.clear();
    if (refusal) {
        m_socket->lingers = true;
        return refuse(*refusal);
    }
    m_stage = Stage::Body;
    if (body.present())
        m_engine.guard().enter(m_socket, HttpSocket::Phase::Body);
    return true;
}

std::optional<Refusal> HttpConnection::readHead(const char* method, const char* version, BodyLength* body) {
    MHD_get_connection_values_n(m_connection, MHD_HEADER_KIND, &collectField, &m_fields);
    if (auto refusal = checkHead(method, version, m_fields, body))
        return refusal;
    if (!isLayoutVerbatim(method, version))
        return Refusal{400, "head with line ends, spaces or NULs out of place"};
    m_request.m_method = method;
    m_request.m_version = version;
    m_request.m_peer = m_socket->peer;
    for (const HeaderField& field : m_fields)
        m_request.m_headers.insert(bytesOf(field.name), bytesOf(field.value));
    if (auto refusal = readTarget())
        return refusal;
    m_isForHandler = m_engine.handler()->wants(m_request.m_method, m_request.m_path);
    const auto judge = [this](const QByteArray& field) {
        return fateOfFile(field);
    };
    const bool isFile = m_isForHandler && m_engine.handler()->takesFile(m_request.m_method, m_request.m_path);
    return m_request.m_body.begin({m_request.getHeader("Content-Type"), *body, isFile},
                                  m_engine.settings().limits, &m_engine.bodies, judge);
}

FileFate HttpConnection::fateOfFile(const QByteArray& field) const {
    if (!m_isForHandler)
        return FileFate::Ignored;
    auto parameters = m_request.m_parameters;
    const auto& fields = m_request.m_body.fields;
    for (auto known = fields.cbegin(); known != fields.cend(); ++known)
        parameters.insert(known.key(), known.value());
    return m_engine.handler()->fateOfFile(m_request, field, parameters);
}

bool HttpConnection::isLayoutVerbatim(const char* method, const char* version) const {
    if (HttpEngine::libraryIsStrict())
        return true;
    const auto* info = MHD_get_connection_info(m_connection, MHD_CONNECTION_INFO_REQUEST_HEADER_SIZE);
    return isVerbatim({method, version, static_cast<std::size_t>(m_target.size()), info->header_size},
                      m_fields);
}

std::optional<Refusal> HttpConnection::readTarget() {
    const auto target = splitTarget(m_target);
    if (!target)
        return Refusal{400, "malformed path"};
    const auto path = decodePercent(target->path);
    m_request.m_rawPath = target->path;
    m_request.m_path = path.value_or(target->path); // whose refusal it is, its beginning tells
    if (!path)
        return Refusal{400, "malformed path"};
    if (!decodeForm(target->query, m_request.m_parameters))
        return Refusal{400, "malformed query"};
    return std::nullopt;
}

bool HttpConnection::takeBody(const char* data, std::size_t size) {
    m_socket->lastData = std::chrono::steady_clock::now();
    m_socket->bodyBytes += static_cast<qint64>(size);
    const auto refusal = m_request.m_body.feed(data, static_cast<int>(size));
    if (!refusal)
        return true;
    refuseAtOnce(*refusal);
    return false;
}

bool HttpConnection::takeEnd() {
    m_engine.guard().enter(m_socket, HttpSocket::Phase::Answer);
    if (const auto refusal = m_request.m_body.finish())
        return refuse(*refusal);
    for (auto field = m_request.m_body.fields.cbegin(); field != m_request.m_body.fields.cend(); ++field)
        m_request.m_parameters.insert(field.key(), field.value());
    if (!m_isForHandler) {
        serveFile();
        return answer();
    }
    m_stage = Stage::Working;
    m_isInFlight = true;
    ++m_engine.inFlight;
    MHD_suspend_connection(m_connection);
    if (!m_engine.workers().submit(this))
        cancel();
    return true;
}

void HttpConnection::serveFile() {
    if (m_engine.files())
        m_engine.files()->service(m_request, m_response);
    else
        m_response.setStatus(404);
}

void HttpConnection::run(WorkerDatabase& database) {
    m_request.m_database = &database;
    m_engine.handler()->service(m_request, m_response);
    m_request.m_database = nullptr;
    if (m_response.m_delay.count() > 0)
        m_engine.lateAnswers().add(m_response.m_delay, [this] { resume(); });
    else
        resume();
}

JobLanes HttpConnection::lanes() {
    return m_engine.handler()->lanes(m_request);
}

void HttpConnection::cancel() {
    tellBusy("too many requests wait, or the service ends");
    resume();
}

void HttpConnection::tellBusy(const char* reason) {
    const Refusal busy{503, reason};
    m_engine.refusals().add(m_socket->peer, busy.status, busy.reason);
    m_response.setStatus(busy.status);
    const auto page = m_engine.handler()->refusalPage(m_request.m_path, busy);
    m_response.setHeader("Content-Type", page.type);
    m_response.setHeader("Retry-After", RetryAfter);
    m_response.m_body = page.body;
}

void HttpConnection::resume() {
    m_stage = Stage::Answer;
    MHD_resume_connection(m_connection);
}

ResponsePointer HttpConnection::heldAnswer() {
    const int size = m_response.m_body.capacity();
    ResponsePointer response = bodyResponse(m_response.m_body, m_engine.answers);
    if (!response) {
        m_engine.guard().endUnreadAnswers(size);
        tellBusy("too many answers are not read");
        return bodyResponse(m_response.m_body, m_engine.answers);
    }
    m_response.m_body.clear();
    m_socket->heldBytes = size;
    m_engine.guard().enter(m_socket, HttpSocket::Phase::Answer); // its client's time begins now
    return response;
}

bool HttpConnection::answer() {
    ResponsePointer response;
    HttpResponse::File& file = m_response.m_file;
    if (!file.head.isEmpty()) {
        response.reset(headedFileResponse(file.head, file.descriptor, file.offset, file.length));
        if (response)
            file.descriptor = -1; // closed with the response
    } else if (file.descriptor >= 0 && file.length > 0) {
        response.reset(MHD_create_response_from_fd_at_offset64(static_cast<std::uint64_t>(file.length),
                                                               file.descriptor,
                                                               static_cast<std::uint64_t>(file.offset)));
        if (response)
            file.descriptor = -1; // closed with the response
    } else {
        response = heldAnswer();
    }
    if (!response)
        return false;
    const auto& headers = m_response.m_headers;
    for (auto header = headers.cbegin(); header != headers.cend(); ++header)
        MHD_add_response_header(response.get(), header.key().constData(), header.value().constData());
    for (const QByteArray& cookie : qAsConst(m_response.m_cookies))
        MHD_add_response_header(response.get(), MHD_HTTP_HEADER_SET_COOKIE, cookie.constData());
    return MHD_queue_response(m_connection, static_cast<unsigned>(m_response.m_status), response.get()) ==
           MHD_YES;
}

bool HttpConnection::refuse(const Refusal& refusal) {
    m_engine.refusals().add(m_socket->peer, refusal.status, refusal.reason);
    m_stage = Stage::Refused;
    m_response.setStatus(refusal.status);
    const auto page = m_engine.handler()->refusalPage(m_request.m_path, refusal);
    m_response.setHeader("Content-Type", page.type);
    m_response.setHeader("Connection", "close");
    if (refusal.status == 503)
        m_response.setHeader("Retry-After", RetryAfter);
    m_response.write(page.body);
    return answer();
}

// While a body arrives the library takes no answer, so this one goes to the socket directly: nothing
// has been sent on it since the answer before, but for a possible "100 Continue".
void HttpConnection::refuseAtOnce(const Refusal& refusal) {
    m_engine.refusals().add(m_socket->peer, refusal.status, refusal.reason);
    m_stage = Stage::Refused;
    m_socket->lingers = true;
    const auto page = m_engine.handler()->refusalPage(m_request.m_path, refusal);
    const QByteArray phrase = MHD_get_reason_phrase_for(static_cast<unsigned>(refusal.status));
    const QByteArray retry =
        refusal.status == 503 ? "\r\nRetry-After: " + QByteArray::number(RetryAfter) : QByteArray();
    const QByteArray message =
        "HTTP/1.1 " + QByteArray::number(refusal.status) + ' ' + phrase + retry +
        "\r\nContent-Type: " + page.type +
        "\r\nConnection: close\r\nContent-Length: " + QByteArray::number(page.body.size()) + "\r\n\r\n" +
        page.body;
    ::send(m_socket->descriptor, message.constData(), static_cast<std::size_t>(message.size()),
           MSG_NOSIGNAL | MSG_DONTWAIT);
}

void HttpConnection::refusedByLibrary(const Refusal& refusal) {
    if (m_stage == Stage::Refused)
        return;
    m_engine.refusals().add(m_socket->peer, refusal.status, refusal.reason);
    m_socket->lingers = true;
}

void HttpConnection::refuseMalformedLengths() {
    for (HttpConnection* head : headsUnderWay()) {
        const char* length =
            MHD_lookup_connection_value(head->m_connection, MHD_HEADER_KIND, MHD_HTTP_HEADER_CONTENT_LENGTH);
        const auto refusal = length ? checkLength(length) : std::nullopt;
        if (!refusal || head->m_stage == Stage::Refused)
            continue;
        head->refuseAtOnce(*refusal);
        ::shutdown(head->m_socket->descriptor, SHUT_WR);
    }
}

void HttpConnection::ended() {
    m_socket->heldBytes = 0;
    m_engine.guard().enter(m_socket, HttpSocket::Phase::Head);
}
