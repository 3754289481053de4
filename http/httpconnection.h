#pragma once

#include "http/httprequest.h"
#include "http/httpresponse.h"
#include "http/workerpool.h"

#include <cstddef>
#include <memory>
#include <vector>

class HttpEngine;
struct HttpSocket;
struct MHD_Connection;
struct MHD_Response;

/// One exchange on a connection, from the request line to the end of its answer. Made and destroyed on
/// the connection's engine thread; a worker has it between submit() and the connection's resumption,
/// during which the engine leaves the connection alone, even when the client has gone.
class HttpConnection final : private WorkerPool::Job {
public:
    HttpConnection(HttpEngine& engine, MHD_Connection* connection, HttpSocket* socket, QByteArray target);
    ~HttpConnection();
    HttpConnection(const HttpConnection&) = delete;
    HttpConnection& operator=(const HttpConnection&) = delete;

    struct ResponseDeleter {
        void operator()(MHD_Response* response) const;
    };
    using ResponsePointer = std::unique_ptr<MHD_Response, ResponseDeleter>;

    /// The engine's call: once with the head, then with each piece of body, then once at its end, and
    /// once more after the worker. `*size` is set to what was not consumed. False closes the connection.
    bool proceed(const char* method, const char* version, const char* data, std::size_t* size);
    /// The library answered by itself.
    void refusedByLibrary(const Refusal& refusal);
    /// On the engine thread at hand: refuses every head that has arrived there with a length that is no
    /// number. The library is about to do so for one of them, twice over.
    static void refuseMalformedLengths();
    /// The last call: the answer was sent, or the connection ended.
    void ended();

private:
    enum class Stage { Head, Body, Working, Answer, Refused };

    bool takeHead(const char* method, const char* version);
    std::optional<Refusal> readHead(const char* method, const char* version, BodyLength* body);
    bool isLayoutVerbatim(const char* method, const char* version) const;
    std::optional<Refusal> readTarget();
    FileFate fateOfFile(const QByteArray& field) const;
    bool takeBody(const char* data, std::size_t size);
    bool takeEnd();
    void serveFile();
    void run(WorkerDatabase& database) override;
    void cancel() override;
    void resume();
    ResponsePointer heldAnswer();
    void tellBusy(const char* reason);
    bool answer();
    bool refuse(const Refusal& refusal);
    void refuseAtOnce(const Refusal& refusal);

    HttpEngine& m_engine;
    MHD_Connection* m_connection;
    HttpSocket* m_socket;
    QByteArray m_target;
    std::vector<HeaderField> m_fields; ///< in the library's memory, valid while the head is read
    HttpRequest m_request;
    HttpResponse m_response;
    Stage m_stage = Stage::Head;
    bool m_isForHandler = false;
    bool m_isInFlight = false;
};
