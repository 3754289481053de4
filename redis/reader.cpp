#include "redis/reader.h"

#include "redis/request.h"

#include <QDebug>

Reader::Reader(QString host, int port)
    : m_host(std::move(host))
    , m_port(port) {
    connect(&m_socket, &QTcpSocket::connected, this, &Reader::socketConnected);
    connect(&m_socket, &QTcpSocket::disconnected, this, &Reader::socketConnectionClosed);
    connect(&m_socket, &QTcpSocket::readyRead, this, &Reader::socketReadyRead);
    connect(&m_socket, &QTcpSocket::errorOccurred, this, &Reader::socketError);
}

Reader::~Reader() {
    m_socket.disconnect(this); // closing must not call slots of what is half gone
}

void Reader::connectHost(const QString& host, quint16 port) {
    if (!m_connected && m_socket.state() == QAbstractSocket::UnconnectedState)
        m_socket.connectToHost(host, port, QIODevice::ReadWrite, QAbstractSocket::AnyIPProtocol);
}

void Reader::disconnectHost() {
    m_socket.disconnectFromHost();
}

void Reader::giveUp() {
    const bool wasConnected = m_connected;
    m_socket.abort();
    if (!wasConnected)
        emit error(QAbstractSocket::SocketTimeoutError);
}

void Reader::sendData(const QString& command) {
    if (m_connected)
        m_socket.write(encodeCharacters(splitCommandLine(command)));
}

void Reader::sendArguments(const QByteArrayList& arguments) {
    if (m_connected)
        m_socket.write(encodeBytes(arguments));
}

void Reader::socketConnected() {
    m_connected = true;
    m_socket.setSocketOption(QAbstractSocket::LowDelayOption, 1);
    emit connected();
}

void Reader::socketConnectionClosed() {
    m_connected = false;
    m_stream.reset();
    emit disconnected();
}

void Reader::socketError(QAbstractSocket::SocketError e) {
    emit error(e);
}

void Reader::socketReadyRead() {
    const QByteArray bytes = m_socket.readAll();
    if (m_framing == Framing::Chunk) {
        readLine(QString::fromUtf8(bytes));
        return;
    }
    m_stream.append(bytes);
    reportWholeReplies();
}

void Reader::reportWholeReplies() {
    ReplyStream::Result result = m_stream.next();
    for (; result.status == ReplyStream::Status::Reply; result = m_stream.next())
        emit response(QVariant(result.reply));
    if (result.status == ReplyStream::Status::Broken) {
        qWarning().noquote() << "redis: answer out of frame from" << m_host << m_port << "connection dropped";
        giveUp();
    }
}

void Reader::readLine(const QString& chunk) {
    emit response(QVariant(flatReplyOfChunk(chunk)));
}

void Reader::waitForConnected(std::chrono::milliseconds limit) {
    if (!m_socket.waitForConnected(static_cast<int>(limit.count())))
        giveUp();
}

void Reader::waitForData(std::chrono::milliseconds limit) {
    m_socket.waitForReadyRead(static_cast<int>(limit.count()));
}
