#include "tasks/alarms/xindaosev.h"

#include <QDebug>
#include <QJsonDocument>

Xindaosev::Xindaosev(QObject* parent)
    : QObject(parent) {
    m_deadline.setSingleShot(true);
    connect(&m_deadline, &QTimer::timeout, this, [this] { fail(QStringLiteral("not connected in time")); });
    connect(&m_socket, &QTcpSocket::connected, this, &Xindaosev::connected);
    connect(&m_socket, &QTcpSocket::readyRead, this, &Xindaosev::readLines);
    connect(&m_socket, &QTcpSocket::errorOccurred, this, [this] { fail(m_socket.errorString()); });
    connect(&m_socket, &QTcpSocket::disconnected, this,
            [this] { fail(QStringLiteral("closed by the source")); });
    m_socket.setReadBufferSize(MaxLineBytes + 1);
}

void Xindaosev::open(const QString& host, int port) {
    m_deadline.start(ConnectMs);
    m_socket.connectToHost(host, static_cast<quint16>(port));
}

void Xindaosev::connected() {
    m_deadline.stop();
    m_socket.setSocketOption(QAbstractSocket::KeepAliveOption, 1);
    m_socket.write(m_waiting);
    m_waiting.clear();
    emit con();
}

void Xindaosev::send(const QJsonArray& document) {
    const QByteArray line = QJsonDocument(document).toJson(QJsonDocument::Compact) + '\n';
    if (m_socket.state() == QAbstractSocket::ConnectedState)
        m_socket.write(line);
    else
        m_waiting += line;
}

void Xindaosev::readLines() {
    while (!m_isOver && m_socket.canReadLine()) {
        const QByteArray line = m_socket.readLine().trimmed();
        if (line.isEmpty())
            continue;
        const QJsonDocument document = QJsonDocument::fromJson(line);
        if (document.isObject())
            emit got_data(document.object());
        else
            qWarning().noquote() << "Xindaosev: no report:" << m_socket.peerName() << line.left(200);
    }
    if (!m_isOver && m_socket.bytesAvailable() > MaxLineBytes)
        fail(QStringLiteral("a line of more than %1 bytes").arg(MaxLineBytes));
}

void Xindaosev::close() {
    m_isOver = true;
    m_deadline.stop();
    m_socket.abort();
}

void Xindaosev::fail(const QString& error) {
    if (m_isOver)
        return;
    close();
    emit ers(error);
}
