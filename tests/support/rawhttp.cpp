#include "support/rawhttp.h"

#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <QList>
#include <sys/socket.h>
#include <unistd.h>

RawHttp::RawHttp(int port, const char* host) {
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICHOST;
    addrinfo* found = nullptr;
    if (::getaddrinfo(host, QByteArray::number(port).constData(), &hints, &found) != 0)
        return;
    m_socket = ::socket(found->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (::connect(m_socket, found->ai_addr, found->ai_addrlen) != 0)
        close();
    ::freeaddrinfo(found);
}

RawHttp::~RawHttp() {
    close();
}

void RawHttp::close() {
    if (m_socket >= 0)
        ::close(m_socket);
    m_socket = -1;
}

void RawHttp::send(const QByteArray& bytes) {
    // What the service no longer reads is of no interest here: its answer is.
    for (int sent = 0; sent < bytes.size();) {
        const auto size = static_cast<std::size_t>(bytes.size() - sent);
        const ssize_t taken = ::send(m_socket, bytes.constData() + sent, size, MSG_NOSIGNAL);
        if (taken <= 0)
            return;
        sent += static_cast<int>(taken);
    }
}

bool RawHttp::fill() {
    pollfd ready{m_socket, POLLIN, 0};
    const auto wait = std::chrono::duration_cast<std::chrono::milliseconds>(Deadline);
    if (::poll(&ready, 1, static_cast<int>(wait.count())) != 1)
        return false;
    char chunk[65536];
    const ssize_t got = ::recv(m_socket, chunk, sizeof chunk, 0);
    if (got > 0)
        m_buffer.append(chunk, static_cast<int>(got));
    return got > 0;
}

RawAnswer RawHttp::receive(bool bodyFollows) {
    RawAnswer answer;
    int end;
    while ((end = m_buffer.indexOf("\r\n\r\n")) < 0) {
        if (!fill())
            return {};
    }
    const QList<QByteArray> lines = m_buffer.left(end).split('\n');
    m_buffer.remove(0, end + 4);
    for (const QByteArray& line : lines.mid(1)) {
        const int colon = line.indexOf(':');
        answer.headers.insert(line.left(colon).toLower(), line.mid(colon + 1).trimmed());
    }
    const int length = bodyFollows ? answer.headers.value("content-length").toInt() : 0;
    while (m_buffer.size() < length) {
        if (!fill())
            return {};
    }
    answer.body = m_buffer.left(length);
    m_buffer.remove(0, length);
    answer.status = lines.first().split(' ').value(1).toInt();
    return answer.status == 100 ? receive(bodyFollows) : answer;
}

bool RawHttp::hasEnded() const {
    char byte;
    const ssize_t got = ::recv(m_socket, &byte, 1, MSG_DONTWAIT | MSG_PEEK);
    return got == 0 || (got < 0 && errno != EAGAIN && errno != EWOULDBLOCK);
}

bool RawHttp::hasData() const {
    char byte;
    return ::recv(m_socket, &byte, 1, MSG_DONTWAIT | MSG_PEEK) >= 0;
}

bool RawHttp::drain() {
    while (fill())
        m_buffer.clear();
    return hasEnded();
}

QByteArray RawHttp::receiveSome(int most) {
    if (m_buffer.isEmpty())
        fill();
    const QByteArray taken = m_buffer.left(most);
    m_buffer.remove(0, taken.size());
    return taken;
}

RawAnswer RawHttp::exchange(int port, const QByteArray& request, bool bodyFollows) {
    RawHttp client(port);
    client.send(request);
    return client.receive(bodyFollows);
}
