#include "device/saobj.h"

#include "core/loop/devicesocket.h"
#include "device/fortcpclient.h"

#include <QDateTime>

SAobj::SAobj(QString sn, SessionEnv& env, QObject* parent)
    : QObject(parent)
    , m_env(env)
    , m_sn(std::move(sn)) {}

SAobj::~SAobj() {
    m_env.events.forget(*this);
}

void SAobj::gonline(fortcpclient* connection, int kind) {
    letGo();
    isOnSameLine = false;
    m_kind = kind;
    setleixing(kind);
    m_onlineState = Online;
    setBusy(false);
    m_client.reset(connection);
    m_remoteIp = connection->socket()->peerAddress().toString();
    if (m_remoteIp == m_localIp) // as long as the speaker has not told its own: one text for both
        m_remoteIp = m_localIp;
    m_registeredAt = static_cast<quint32>(QDateTime::currentSecsSinceEpoch());
    // A session that was never a receiver of signals is the smaller by what Qt keeps for one.
    connect(connection, &fortcpclient::backdata, connection,
            [this](const QByteArray& bytes) { sn_onlinebackdata(bytes); });
    m_statusText = CameOnline;
    m_mp3.connected();
    get_devinfo();
    note(SpeakerEvents::Online);
}

void SAobj::goffline() {
    if (m_client)
        QObject::disconnect(m_client.release(), nullptr, nullptr, nullptr);
    isOnSameLine = false;
    m_statusText = WentOffline;
    m_onlineState = Offline;
    setBusy(false);
    m_mp3.disconnected();
    note(SpeakerEvents::Offline);
}

void SAobj::tellAgain() {
    m_numbersChange = 0;
    note(SpeakerEvents::KnownAgain);
}

void SAobj::setBusy(bool busy) {
    if (std::exchange(m_busy, busy) != busy)
        note(busy ? SpeakerEvents::Playing : SpeakerEvents::Idle);
}

void SAobj::streamChanged(Mp3Path::Speaker::Change change) {
    switch (change) {
    case Begun:
        return note(SpeakerEvents::StreamBegun);
    case Replaced:
        return note(SpeakerEvents::StreamEnded);
    case Taken:
        return setBusy(false);
    case Running:
        m_onlineState = Streaming;
        return note(SpeakerEvents::StreamBegun);
    case Paused:
        m_statusText = StreamOver;
        m_onlineState = Online;
        return note(SpeakerEvents::StreamEnded);
    }
}

QString SAobj::taskId() const {
    return m_mp3.isNamed() ? QString::number(streamId()) : QStringLiteral("fucktaskid");
}

/// A newer connection of the same speaker is about to be bound. One that was let go of before is closed now:
/// whoever registers again and again has two connections, not one for each time.
void SAobj::letGo() {
    if (!m_client)
        return;
    for (QObject* const child : children()) {
        auto* const older = qobject_cast<fortcpclient*>(child);
        if (older && older->socket()->isConnected())
            older->release();
    }
    m_client->supersede();
    m_client.release()->setParent(this);
}

QString SAobj::registrationTime(QChar separator) const {
    const QDateTime registered = QDateTime::fromSecsSinceEpoch(m_registeredAt);
    return registered.toString(QStringLiteral("yyyy-MM-dd%1hh:mm:ss").arg(separator));
}

quint64 SAobj::changeOfNumbers(quint64& changes) {
    const Numbers now = numbers();
    if (m_numbersChange == 0 || now != m_numbersSeen) {
        m_numbersSeen = now;
        m_numbersChange = ++changes;
    }
    return m_numbersChange;
}

QString SAobj::statusText() const {
    switch (m_statusText) {
    case CameOnline:
        return QStringLiteral("在线");
    case WentOffline:
        return QStringLiteral("掉线");
    case StreamOver:
        return QStringLiteral("空闲");
    case NeverOnline:
        break;
    }
    return {};
}

QString SAobj::statusWord() const {
    if (m_onlineState == Offline)
        return QStringLiteral("OFFLINE");
    if (m_onlineState == Streaming)
        return QStringLiteral("PLAYING2");
    return m_busy ? QStringLiteral("PLAYING1") : QStringLiteral("ONLINE");
}
