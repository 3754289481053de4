#include "nodes/nodecall.h"

NodeCall::NodeCall(const NodeAddress& node, const QByteArray& payload, const Limits& limits, QObject* parent)
    : QObject(parent)
    , m_node(node)
    , m_frame(frame(payload))
    , m_limits(limits) {
    m_limit.setSingleShot(true);
    connect(&m_limit, &QTimer::timeout, this, &NodeCall::endWaiting);
    connect(&m_socket, &QTcpSocket::connected, this, &NodeCall::write);
    connect(&m_socket, &QTcpSocket::bytesWritten, this, &NodeCall::noteWritten);
    connect(&m_socket, &QTcpSocket::readyRead, this, &NodeCall::read);
    connect(&m_socket, &QTcpSocket::errorOccurred, this, [this] { fail(m_socket.errorString()); });
}

void NodeCall::start() {
    m_limit.start(m_limits.connect);
    m_socket.connectToHost(m_node.host.isEmpty() ? QStringLiteral("127.0.0.1") : m_node.host,
                           static_cast<quint16>(m_node.port));
}

void NodeCall::write() {
    m_isConnected = true;
    m_limit.start(m_limits.answer);
    m_socket.write(m_frame);
}

void NodeCall::noteWritten() {
    if (m_isWritten || m_socket.bytesToWrite() > 0)
        return;
    m_isWritten = true;
    emit written();
    if (!m_readsAnswer)
        finish({Outcome::Sent, {}, {}});
}

void NodeCall::read() {
    const int seen = qMax(0, m_answer.size() - 1);
    m_answer += m_socket.readAll();
    const int end = m_answer.indexOf("\r\n", seen);
    if (end >= 0)
        finish({Outcome::Answered, m_answer.left(end), {}});
    else if (m_answer.size() > MaxAnswerBytes)
        fail(QStringLiteral("answer too long"));
}

/// A turn of the loop may have been longer than the limit: what has connected meanwhile counts.
void NodeCall::endWaiting() {
    const bool isConnecting = m_socket.state() == QAbstractSocket::ConnectingState;
    if (!m_isConnected && isConnecting && m_socket.waitForConnected(1))
        return;
    fail(QStringLiteral("not %1 in time")
             .arg(m_isConnected ? QStringLiteral("answered") : QStringLiteral("connected")));
}

void NodeCall::fail(const QString& error) {
    finish({m_isConnected ? Outcome::Failed : Outcome::NotConnected, {}, error});
}

void NodeCall::finish(const Result& result) {
    if (m_isOver)
        return;
    m_isOver = true;
    m_limit.stop();
    m_socket.disconnect(this);
    m_socket.disconnectFromHost();
    deleteLater();
    emit over(result);
}

QByteArray NodeCall::frame(const QByteArray& payload) {
    return QByteArray::number(payload.size()) + '\n' + payload;
}
