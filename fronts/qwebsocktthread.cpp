#include "fronts/qwebsocktthread.h"

#include "core/logthrottle.h"

#include <QDebug>
#include <QHostAddress>
#include <QWebSocket>

qwebsocktthread::qwebsocktthread(QWebSocket* socket, QObject* parent)
    : QObject(parent)
    , m_socket(socket) {
    socket->setParent(this);
    socket->setMaxAllowedIncomingFrameSize(MaxMessageBytes);
    socket->setMaxAllowedIncomingMessageSize(MaxMessageBytes);
    connect(socket, &QWebSocket::textMessageReceived, this, &qwebsocktthread::take);
    connect(socket, &QWebSocket::binaryMessageReceived, this, [this] {
        refuse(QWebSocketProtocol::CloseCodeDatatypeNotSupported, QStringLiteral("only text is understood"));
    });
    connect(socket, &QWebSocket::pong, this, [this] { m_hasAnswered = true; });
    connect(socket, &QWebSocket::disconnected, this, &QObject::deleteLater);
    m_first.setSingleShot(true);
    connect(&m_first, &QTimer::timeout, this,
            [this] { refuse(QWebSocketProtocol::CloseCodePolicyViolated, QStringLiteral("no request")); });
    m_first.start(FirstMessage);
    connect(&m_ping, &QTimer::timeout, this, &qwebsocktthread::ping);
    m_ping.start(PingInterval);
}

qwebsocktthread::~qwebsocktthread() = default;

void qwebsocktthread::take(const QString& message) {
    m_first.stop();
    const QByteArray bytes = message.toUtf8();
    m_waiting.enqueue(bytes);
    m_waitingBytes += bytes.size();
    if (m_waiting.size() > MaxWaiting || m_waitingBytes > MaxWaitingBytes)
        refuse(QWebSocketProtocol::CloseCodePolicyViolated, QStringLiteral("too many requests wait"));
    else
        next();
}

void qwebsocktthread::next() {
    if (m_isBusy || m_waiting.isEmpty())
        return;
    m_isBusy = true;
    const QByteArray message = m_waiting.dequeue();
    m_waitingBytes -= message.size();
    emit request(message);
}

QString qwebsocktthread::address() const {
    return m_socket->peerAddress().toString();
}

void qwebsocktthread::reply(const QByteArray& text, std::chrono::milliseconds delay) {
    if (delay.count() > 0)
        QTimer::singleShot(delay, this, [this, text] { send(text); });
    else
        send(text);
}

void qwebsocktthread::send(const QByteArray& text) {
    m_isBusy = false;
    if (!m_socket->isValid())
        return;
    if (m_socket->bytesToWrite() + text.size() > MaxUnsentBytes) {
        if (mayLog("WebSocket: does not read", m_socket->peerAddress()))
            qWarning().noquote() << "WebSocket: does not read its replies, dropped:"
                                 << m_socket->peerAddress().toString();
        m_socket->abort();
        return;
    }
    m_socket->sendTextMessage(QString::fromUtf8(text));
    next();
}

void qwebsocktthread::ping() {
    if (!m_hasAnswered) {
        if (mayLog("WebSocket: no answer", m_socket->peerAddress()))
            qInfo().noquote() << "WebSocket: no answer to a ping, dropped:"
                              << m_socket->peerAddress().toString();
        m_socket->abort();
        return;
    }
    m_hasAnswered = false;
    m_socket->ping();
}

void qwebsocktthread::refuse(int code, const QString& why) {
    if (mayLog("WebSocket: closed", m_socket->peerAddress()))
        qWarning().noquote() << "WebSocket: closed:" << m_socket->peerAddress().toString() << why;
    m_waiting.clear();
    m_isBusy = true; // nothing more is taken
    m_socket->close(static_cast<QWebSocketProtocol::CloseCode>(code), why);
}
