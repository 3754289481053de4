#include "fronts/qwebsocktthread.h"

#include "fronts/websockethandshake.h"

#include "api/call.h"
#include "core/logthrottle.h"

#include <algorithm>
#include <QDebug>
#include <QHostAddress>
#include <QTcpSocket>
#include <QTimer>
#include <sys/socket.h>

using websocket::CloseCode;
using websocket::Event;
using websocket::Opcode;

namespace {
/// What is read at a time; the peer's own window holds the rest.
constexpr qint64 ReadBuffer = 64 * 1024;
} // namespace

qwebsocktthread::qwebsocktthread(QTcpSocket* socket, QStringList origins, WebSocketBudget& budget,
                                 QObject* parent)
    : QObject(parent)
    , m_socket(socket)
    , m_origins(std::move(origins))
    , m_budget(budget) {
    socket->setParent(this);
    socket->setReadBufferSize(ReadBuffer);
    socket->setSocketOption(QAbstractSocket::KeepAliveOption, 1);
    connect(socket, &QTcpSocket::readyRead, this, &qwebsocktthread::receive);
    connect(socket, &QTcpSocket::bytesWritten, this, &qwebsocktthread::written);
    connect(socket, &QTcpSocket::disconnected, this, [this] {
        m_state = State::Closing;
        emit ended();
    });
}

qwebsocktthread::~qwebsocktthread() {
    m_socket->disconnect(this);
    m_budget.bytes -= m_accounted;
    m_budget.eventBytes -= m_accountedEvents;
}

/// Whether all connections together are within the budget.
bool qwebsocktthread::account() {
    const qint64 unsent = m_socket->bytesToWrite();
    m_eventBytes = std::min(m_eventBytes, unsent);
    m_budget.eventBytes += m_eventBytes - std::exchange(m_accountedEvents, m_eventBytes);
    const qint64 held =
        m_handshake.size() + m_reader.heldBytes() + m_waitingBytes + m_busyBytes + unsent - m_eventBytes;
    m_budget.bytes += held - std::exchange(m_accounted, held);
    return m_budget.bytes <= WebSocketBudget::MaxBytes;
}

void qwebsocktthread::receive() {
    QByteArray bytes = m_socket->readAll();
    if (m_state == State::Closing && (m_ignored += bytes.size()) > MaxIgnoredBytes)
        return drop();
    if (m_state == State::Handshake)
        bytes = shakeHands(bytes);
    std::string_view rest(bytes.constData(), static_cast<std::size_t>(bytes.size()));
    while (m_state == State::Open && !rest.empty())
        take(m_reader.read(rest));
    if (m_state == State::Open && !m_reader.isWithinMessage())
        m_lastMessage = Clock::now();
    if (!account() && m_state == State::Open)
        close(CloseCode::TryAgain, "too much is being sent at once");
}

/// What follows the handshake.
QByteArray qwebsocktthread::shakeHands(const QByteArray& bytes) {
    m_handshake += bytes;
    const int end = m_handshake.indexOf("\r\n\r\n");
    if (end < 0 && m_handshake.size() > MaxHandshakeBytes)
        finish(websocket::refusedHandshake(431, "Request Header Fields Too Large"));
    if (end < 0)
        return {};
    const QByteArray head = m_handshake.left(end + 4);
    QByteArray rest = m_handshake.mid(end + 4);
    m_handshake.clear();
    const websocket::Handshake answer = websocket::answerHandshake(head, m_origins);
    if (answer.status != 101) {
        qWarning("WebSocket: handshake of %s refused with %d", qPrintable(m_socket->peerAddress().toString()),
                 answer.status);
        finish(answer.answer);
        return {};
    }
    m_state = State::Open;
    m_lastMessage = Clock::now();
    m_socket->write(answer.answer);
    return rest;
}

void qwebsocktthread::take(const Event& event) {
    const bool isControl = event.kind == Event::Kind::Ping || event.kind == Event::Kind::Pong;
    if (isControl && isControlFlood())
        return close(CloseCode::Policy, "too many pings");
    switch (event.kind) {
    case Event::Kind::None:
        break;
    case Event::Kind::Text:
        takeText(event.payload);
        break;
    case Event::Kind::Ping:
        pong(event.payload);
        break;
    case Event::Kind::Pong:
        m_hasAnswered = true;
        break;
    case Event::Kind::Close:
        finish(websocket::frame(Opcode::Close, event.payload.left(2)));
        break;
    case Event::Kind::Error:
        close(event.code, event.reason);
        break;
    }
}

bool qwebsocktthread::isControlFlood() {
    const auto now = Clock::now();
    if (now - m_second >= std::chrono::seconds(1)) {
        m_second = now;
        m_controls = 0;
    }
    return ++m_controls > MaxControlFrames;
}

void qwebsocktthread::pong(const QByteArray& payload) {
    if (m_socket->bytesToWrite() > MaxUnsentBytes)
        return dropFor("does not read its replies");
    m_socket->write(websocket::frame(Opcode::Pong, payload));
}

void qwebsocktthread::takeText(const QByteArray& message) {
    m_hasAsked = true;
    m_waiting.enqueue(message);
    m_waitingBytes += message.capacity();
    if (m_waiting.size() > MaxWaiting || m_waitingBytes > MaxWaitingBytes)
        close(CloseCode::Policy, "too many requests wait");
    else
        next();
}

void qwebsocktthread::next() {
    if (m_isBusy || m_waiting.isEmpty() || m_state != State::Open ||
        m_socket->bytesToWrite() > MaxUnsentBytes)
        return;
    m_isBusy = true;
    const QByteArray message = m_waiting.dequeue();
    m_waitingBytes -= message.capacity();
    m_busyBytes = message.capacity();
    account();
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
    m_busyBytes = 0;
    if (m_state != State::Open)
        return;
    const bool fits = account() && m_budget.bytes + text.size() <= WebSocketBudget::MaxBytes;
    m_socket->write(websocket::frame(Opcode::Text, fits ? text : refusal(QStringLiteral("busy"))));
    account();
    next();
}

void qwebsocktthread::endRequest() {
    m_isBusy = false;
    m_busyBytes = 0;
    account();
    next();
}

void qwebsocktthread::setSubscribed() {
    m_isSubscribed = true;
    m_socket->setSocketOption(QAbstractSocket::SendBufferSizeSocketOption, EventSendBuffer);
}

void qwebsocktthread::tell(const QByteArray& frame) {
    if (m_state != State::Open)
        return;
    if (m_socket->bytesToWrite() == 0)
        m_lastWritten = Clock::now();
    m_socket->write(frame);
    m_eventBytes += frame.size();
    account();
}

bool qwebsocktthread::hasRoom() const {
    return m_state == State::Open && m_socket->bytesToWrite() <= EventRoom;
}

std::chrono::milliseconds qwebsocktthread::standstill(Clock::time_point now) const {
    if (m_socket->bytesToWrite() == 0)
        return {};
    return std::chrono::duration_cast<std::chrono::milliseconds>(now - m_lastWritten);
}

void qwebsocktthread::written() {
    m_lastWritten = Clock::now();
    account();
    if (m_state == State::Closing && m_socket->bytesToWrite() == 0)
        ::shutdown(static_cast<int>(m_socket->socketDescriptor()), SHUT_WR);
    else
        next();
    if (m_isSubscribed && hasRoom())
        emit drained();
}

void qwebsocktthread::tick(Clock::time_point now) {
    if (m_socket->bytesToWrite() == 0)
        m_lastWritten = now;
    if (m_state == State::Closing) {
        if (now - m_closing > CloseTime)
            drop();
    } else if (m_state == State::Handshake) {
        if (now - m_begin > HandshakeTime)
            drop();
    } else if (!m_isSubscribed && now - m_lastWritten > UnreadTime) {
        dropFor("does not read its replies");
    } else if (m_reader.isWithinMessage() && now - m_lastMessage > MessageTime) {
        close(CloseCode::Policy, "message without its end");
    } else if (!m_hasAsked && now - m_begin > FirstMessage) {
        close(CloseCode::Policy, "no request");
    } else if (now - m_lastPing > PingInterval) {
        ping(now);
    }
}

void qwebsocktthread::ping(Clock::time_point now) {
    if (!m_hasAnswered)
        return dropFor("no answer to a ping");
    m_hasAnswered = false;
    m_lastPing = now;
    m_socket->write(websocket::frame(Opcode::Ping, {}));
}

void qwebsocktthread::close(CloseCode code, const char* why) {
    if (mayLog("WebSocket: closed", m_socket->peerAddress()))
        qWarning().noquote() << "WebSocket: closed:" << m_socket->peerAddress().toString() << why;
    finish(websocket::closeFrame(code, why));
}

/// Sends these as the last bytes, and reads no more: what still comes is thrown away for a while, since
/// closing with unread data would reset the connection, and the reset can destroy the last bytes.
void qwebsocktthread::finish(const QByteArray& lastBytes) {
    m_state = State::Closing;
    m_closing = Clock::now();
    m_waiting.clear();
    m_waitingBytes = 0;
    m_handshake.clear();
    m_socket->write(lastBytes);
    account();
}

void qwebsocktthread::dropFor(const char* why) {
    if (mayLog("WebSocket: dropped", m_socket->peerAddress()))
        qWarning().noquote() << "WebSocket: dropped:" << m_socket->peerAddress().toString() << why;
    drop();
}

void qwebsocktthread::drop() {
    m_state = State::Closing;
    m_socket->abort();
}
