#include "redis/nodecall.h"

#include <cerrno>
#include <cstring>
#include <memory>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <QDeadlineTimer>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr int ConnectMs = 100;
constexpr int AnswerMs = 30000;
/// The longest answer is a LIST of 20,000 speakers, about 5 MB.
constexpr int MaxAnswerBytes = 64 * 1024 * 1024;

class Socket {
public:
    explicit Socket(int family)
        : m_fd(::socket(family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {
        const int on = 1;
        ::setsockopt(m_fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    }
    ~Socket() {
        if (m_fd >= 0)
            ::close(m_fd);
    }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;

    bool connect(const addrinfo& address, const QDeadlineTimer& deadline) {
        if (m_fd < 0)
            return false;
        if (::connect(m_fd, address.ai_addr, address.ai_addrlen) == 0)
            return true;
        if (errno != EINPROGRESS || !wait(POLLOUT, deadline))
            return false;
        int error = 0;
        socklen_t size = sizeof error;
        return ::getsockopt(m_fd, SOL_SOCKET, SO_ERROR, &error, &size) == 0 && error == 0;
    }

    bool writeAll(const QByteArray& bytes, const QDeadlineTimer& deadline) {
        for (int done = 0; done < bytes.size();) {
            const ssize_t n = ::send(m_fd, bytes.constData() + done, static_cast<size_t>(bytes.size() - done),
                                     MSG_NOSIGNAL);
            if (n > 0)
                done += static_cast<int>(n);
            else if (!mayRetry() || !wait(POLLOUT, deadline))
                return false;
        }
        return true;
    }

    /// Reads up to and without "\r\n". False on a time-out, an end before it or too much of it.
    bool readAnswer(QByteArray& answer, const QDeadlineTimer& deadline) {
        char block[64 * 1024];
        while (answer.size() <= MaxAnswerBytes) {
            const ssize_t n = ::recv(m_fd, block, sizeof block, 0);
            if (n > 0) {
                const int seen = qMax(0, answer.size() - 1);
                answer.append(block, static_cast<int>(n));
                const int end = answer.indexOf("\r\n", seen);
                if (end >= 0) {
                    answer.truncate(end);
                    return true;
                }
            } else if (n == 0 || !mayRetry() || !wait(POLLIN, deadline)) {
                return false;
            }
        }
        return false;
    }

private:
    static bool mayRetry() { return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR; }

    bool wait(short events, const QDeadlineTimer& deadline) const {
        for (;;) {
            pollfd watched{m_fd, events, 0};
            const int ready = ::poll(&watched, 1, static_cast<int>(deadline.remainingTime()));
            if (ready > 0)
                return true;
            if (ready == 0 || errno != EINTR)
                return false;
        }
    }

    int m_fd;
};

using Addresses = std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)>;

Addresses resolve(const QString& host, int port) {
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICSERV;
    addrinfo* found = nullptr;
    if (::getaddrinfo(host.toUtf8().constData(), QByteArray::number(port).constData(), &hints, &found) != 0)
        found = nullptr;
    return {found, &::freeaddrinfo};
}

NodeCall::Result exchange(Socket& socket, const QByteArray& frame, bool waitForAnswer) {
    using Outcome = NodeCall::Outcome;
    const QDeadlineTimer deadline(AnswerMs);
    if (!socket.writeAll(frame, deadline))
        return {Outcome::Failed,
                {},
                QStringLiteral("request not written: %1").arg(QString::fromLocal8Bit(strerror(errno)))};
    if (!waitForAnswer)
        return {Outcome::Sent, {}, {}};
    QByteArray answer;
    if (!socket.readAnswer(answer, deadline))
        return {Outcome::Failed, {}, QStringLiteral("no whole answer within %1 ms").arg(AnswerMs)};
    return {Outcome::Answered, answer, {}};
}

} // namespace

NodeCall::Result NodeCall::send(const QString& host, int port, const QByteArray& frame, bool waitForAnswer) {
    const Addresses addresses = resolve(host, port);
    const QDeadlineTimer deadline(ConnectMs);
    for (const addrinfo* address = addresses.get(); address; address = address->ai_next) {
        Socket socket(address->ai_family);
        if (socket.connect(*address, deadline))
            return exchange(socket, frame, waitForAnswer);
    }
    return {Outcome::NotConnected, {}, QStringLiteral("no connection within %1 ms").arg(ConnectMs)};
}
