#include "device/saobj.h"

#include "device/devicesocket.h"
#include "device/fortcpclient.h"

#include <chrono>
#include <QDateTime>

using namespace std::chrono_literals;

namespace {
constexpr auto StartCheckDelay = 7261ms;
} // namespace

SAobj::SAobj(QString sn, SessionEnv& env, QObject* parent)
    : QObject(parent)
    , m_env(env)
    , m_sn(std::move(sn))
    , m_sourceName(QStringLiteral("oxiaom"))
    , m_taskName(QStringLiteral("oxiaomtaskname"))
    , m_taskId(QStringLiteral("fucktaskid")) {}

SAobj::~SAobj() = default;

void SAobj::wheelTimeout(int tag) {
    switch (tag) {
    case StatusTick:
        return timeout();
    case Heartbeat:
        return mp3heat_();
    case ConnectRetry:
        return mp3recheck();
    case StartCheck:
        return _check_start_stream();
    default:
        return;
    }
}

void SAobj::gonline(fortcpclient* connection, int kind) {
    letGo();
    m_kind = kind;
    m_leixing = kind;
    m_onlineState = Online;
    m_busy = false;
    m_client = connection;
    m_remoteIp = connection->socket()->peerAddress().toString();
    m_registeredAt = QDateTime::currentSecsSinceEpoch();
    connect(connection, &fortcpclient::backdata, this, &SAobj::sn_onlinebackdata);
    m_statusTimer.reset();
    tickUnlessIdle();
    m_statusText = QStringLiteral("在线");
    resetMp3Path();
    mirror("Line", QStringLiteral("Online"));
    mirrorRegistration();
    get_devinfo();
    m_startCheckTimer = m_env.wheel.once(StartCheckDelay, this, StartCheck);
}

void SAobj::goffline() {
    if (m_client)
        disconnect(m_client, nullptr, this, nullptr);
    m_client = nullptr;
    m_statusTimer.reset();
    m_startCheckTimer.reset();
    m_statusText = QStringLiteral("掉线");
    m_onlineState = Offline;
    m_busy = false;
    resetMp3Path();
    mirror("Line", QStringLiteral("Offline"));
}

/// A newer connection of the same speaker is about to be bound.
void SAobj::letGo() {
    if (m_client)
        m_client->supersede();
    m_client = nullptr;
}

void SAobj::mirror(const char* field, const QVariant& value) {
    if (StateMirror* const target = m_env.connectedMirror())
        target->Set_sn_key_value(m_sn, QLatin1String(field), value);
}

void SAobj::mirrorRegistration() {
    StateMirror* const target = m_env.connectedMirror();
    if (!target)
        return;
    target->online_newdevices(m_sn, m_kind, m_vol, m_micD, m_micE, m_localIp, m_remoteIp,
                              registrationTime(QLatin1Char(' ')));
}

QString SAobj::registrationTime(QChar separator) const {
    const QDateTime registered = QDateTime::fromSecsSinceEpoch(m_registeredAt);
    return registered.toString(QStringLiteral("yyyy-MM-dd%1hh:mm:ss").arg(separator));
}

void SAobj::mirrorState() {
    mirror("Line", isOnline() ? QStringLiteral("Online") : QStringLiteral("Offline"));
    mirrorStatus();
    mirror("vol", m_vol);
    mirror("mic_d", m_micD);
    mirror("mic_e", m_micE);
    if (m_registeredAt == 0)
        return;
    mirror("sn", m_sn);
    mirror("kindsk", m_kind);
    mirror("l_ip", m_localIp);
    mirror("r_ip", m_remoteIp);
    mirror("Reg_Date", registrationTime(QLatin1Char('-')));
}

void SAobj::mirrorStatus() {
    mirror("STATUS", statusWord());
}

quint64 SAobj::changeOfNumbers(quint64& changes) {
    const Numbers now = numbers();
    if (m_numbersChange == 0 || now != m_numbersSeen) {
        m_numbersSeen = now;
        m_numbersChange = ++changes;
    }
    return m_numbersChange;
}

QString SAobj::statusWord() const {
    if (m_onlineState == Offline)
        return QStringLiteral("OFFLINE");
    if (m_onlineState == Streaming)
        return QStringLiteral("PLAYING2");
    return m_busy ? QStringLiteral("PLAYING1") : QStringLiteral("ONLINE");
}
