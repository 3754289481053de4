#pragma once

#include <chrono>
#include <QByteArray>
#include <QMap>

/// One answer as it came over the wire.
struct RawAnswer {
    int status = 0; ///< 0: the connection ended, or the deadline passed, before an answer was whole
    QMap<QByteArray, QByteArray> headers; ///< names in lower case
    QByteArray body;
};

/// A TCP client that sends exactly the bytes it is given: for requests that no HTTP library would
/// send. Blocking, with a deadline on everything.
class RawHttp {
public:
    static constexpr std::chrono::seconds Deadline{20};

    explicit RawHttp(int port, const char* host = "127.0.0.1");
    ~RawHttp();
    RawHttp(const RawHttp&) = delete;
    RawHttp& operator=(const RawHttp&) = delete;

    bool isConnected() const { return m_socket >= 0; }
    void send(const QByteArray& bytes);
    /// The next answer on the connection. `bodyFollows` is false after HEAD.
    RawAnswer receive(bool bodyFollows = true);
    /// Reads whatever still comes, to the end of the connection; whether that came.
    bool drain();
    /// Whether it has ended already; looks at nothing but the end.
    bool hasEnded() const;
    bool hasData() const; ///< bytes to read are there, or the end
    /// Bytes that are there at once or within the deadline; empty at the end.
    QByteArray receiveSome(int most);
    void close();

    /// Sends one request on a connection of its own.
    static RawAnswer exchange(int port, const QByteArray& request, bool bodyFollows = true);

private:
    bool fill();
    int m_socket = -1;
    QByteArray m_buffer;
};
