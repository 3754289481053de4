#include "nodes/remotecall.h"

#include <utility>

RemoteCall::RemoteCall(const NodeAddress& node, const QByteArray& payload, bool waitForAnswer,
                       const NodeCall::Limits& limits, Done done, QObject* parent)
    : QObject(parent)
    , m_frame(NodeCall::frame(payload))
    , m_waitForAnswer(waitForAnswer)
    , m_limits(limits)
    , m_done(std::move(done)) {
    connect(&m_socket, &QTcpSocket::connected, this, &RemoteCall::write);
    connect(&m_socket, &QTcpSocket::readyRead, this, &RemoteCall::read);
    connect(&m_socket, &QTcpSocket::errorOccurred, this, &RemoteCall::fail);
    connect(&m_socket, &QTcpSocket::bytesWritten, this, [this] {
        if (!m_waitForAnswer && m_socket.bytesToWrite() == 0)
            finish({NodeCall::Outcome::Sent, {}, {}});
    });
    m_limit.setSingleShot(true);
    connect(&m_limit, &QTimer::timeout, this, &RemoteCall::fail);
    m_limit.start(m_limits.connect);
    m_socket.connectToHost(node.host.isEmpty() ? QStringLiteral("127.0.0.1") : node.host,
                           static_cast<quint16>(node.port));
}

void RemoteCall::write() {
    m_isConnected = true;
    m_limit.start(m_limits.answer);
    m_socket.write(m_frame);
}

void RemoteCall::read() {
    if (!m_waitForAnswer)
        return;
    const int seen = qMax(0, m_answer.size() - 1);
    m_answer += m_socket.readAll();
    const int end = m_answer.indexOf("\r\n", seen);
    if (end >= 0)
        finish({NodeCall::Outcome::Answered, m_answer.left(end), {}});
    else if (m_answer.size() > NodeCall::MaxAnswerBytes)
        fail();
}

void RemoteCall::fail() {
    using Outcome = NodeCall::Outcome;
    const QString error = m_limit.isActive() ? m_socket.errorString() : QStringLiteral("no answer in time");
    finish({m_isConnected ? Outcome::Failed : Outcome::NotConnected, {}, error});
}

void RemoteCall::finish(const NodeCall::Result& result) {
    const Done done = std::exchange(m_done, nullptr);
    if (!done)
        return;
    m_limit.stop();
    m_socket.disconnect(this);
    m_socket.disconnectFromHost();
    deleteLater();
    done(result);
}
