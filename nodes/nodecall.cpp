#include "nodes/nodecall.h"

#include <algorithm>
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

constexpr qint64 LookMs = 100; ///< between two looks at whether the caller has given up

/// How long to go on.
struct Patience {
    QDeadlineTimer deadline;
    const std::atomic<bool>* cancelled;
    bool isOver() const { return deadline.hasExpired() || (cancelled && *cancelled); }
};

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

    bool connect(const addrinfo& address, const Patience& patience) {
        if (m_fd < 0)
            return false;
        if (::connect(m_fd, address.ai_addr, address.ai_addrlen) == 0)
            return true;
        if (errno != EINPROGRESS || !wait(POLLOUT, patience))
            return false;
        int error = 0;
        socklen_t size = sizeof error;
        return ::getsockopt(m_fd, SOL_SOCKET, SO_ERROR, &error, &size) == 0 && error == 0;
    }

    bool writeAll(const QByteArray& bytes, const Patience& patience) {
        for (int done = 0; done < bytes.size();) {
            const ssize_t n = ::send(m_fd, bytes.constData() + done, static_cast<size_t>(bytes.size() - done),
                                     MSG_NOSIGNAL);
            if (n > 0)
                done += static_cast<int>(n);
            else if (!mayRetry() || !wait(POLLOUT, patience))
                return false;
        }
        return true;
    }

    /// Reads up to and without "\r\n". False on a time-out, an end before it or too much of it.
    bool readAnswer(QByteArray& answer, const Patience& patience) {
        char block[64 * 1024];
        while (answer.size() <= NodeCall::MaxAnswerBytes) {
            const ssize_t n = ::recv(m_fd, block, sizeof block, 0);
            if (n > 0) {
                const int seen = qMax(0, answer.size() - 1);
                answer.append(block, static_cast<int>(n));
                const int end = answer.indexOf("\r\n", seen);
                if (end >= 0) {
                    answer.truncate(end);
                    return true;
                }
            } else if (n == 0 || !mayRetry() || !wait(POLLIN, patience)) {
                return false;
            }
        }
        return false;
    }

private:
    static bool mayRetry() { return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR; }

    bool wait(short events, const Patience& patience) const {
        while (!patience.isOver()) {
            pollfd watched{m_fd, events, 0};
            const qint64 turn = std::min(patience.deadline.remainingTime(), LookMs);
            const int ready = ::poll(&watched, 1, static_cast<int>(turn));
            if (ready > 0)
                return true;
            if (ready < 0 && errno != EINTR)
                return false;
        }
        return false;
    }

    int m_fd;
};

using Addresses = std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)>;

Addresses resolve(const NodeAddress& node) {
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICSERV;
    addrinfo* found = nullptr;
    const QByteArray host = node.host.isEmpty() ? QByteArrayLiteral("127.0.0.1") : node.host.toUtf8();
    if (::getaddrinfo(host.constData(), QByteArray::number(node.port).constData(), &hints, &found) != 0)
        found = nullptr;
    return {found, &::freeaddrinfo};
}

NodeCall::Result exchange(Socket& socket, const QByteArray& frame, bool waitForAnswer,
                          const NodeCall::Limits& limits) {
    using Outcome = NodeCall::Outcome;
    const Patience patience{QDeadlineTimer(limits.answer), limits.cancelled};
    if (!socket.writeAll(frame, patience))
        return {Outcome::Failed,
                {},
                QStringLiteral("request not written: %1").arg(QString::fromLocal8Bit(strerror(errno)))};
    if (!waitForAnswer)
        return {Outcome::Sent, {}, {}};
    QByteArray answer;
    if (!socket.readAnswer(answer, patience))
        return {
            Outcome::Failed, {}, QStringLiteral("no whole answer within %1 ms").arg(limits.answer.count())};
    return {Outcome::Answered, answer, {}};
}

} // namespace

QByteArray NodeCall::frame(const QByteArray& payload) {
    return QByteArray::number(payload.size()) + '\n' + payload;
}

NodeCall::Result NodeCall::send(const NodeAddress& node, const QByteArray& payload, bool waitForAnswer,
                                const Limits& limits) {
    const Addresses addresses = resolve(node);
    const Patience patience{QDeadlineTimer(limits.connect), limits.cancelled};
    for (const addrinfo* address = addresses.get(); address; address = address->ai_next) {
        Socket socket(address->ai_family);
        if (socket.connect(*address, patience))
            return exchange(socket, frame(payload), waitForAnswer, limits);
    }
    return {
        Outcome::NotConnected, {}, QStringLiteral("no connection within %1 ms").arg(limits.connect.count())};
}
