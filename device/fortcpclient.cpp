#include "device/fortcpclient.h"

#include "core/fetch.h"
#include "core/logthrottle.h"

#include <chrono>
#include <QDebug>
#include <utility>

using namespace std::chrono_literals;

namespace {
constexpr auto KeepAliveInterval = 5000ms;
/// How long a connection that a newer one has replaced may stay: time for the speaker to close it
/// itself, and a bound on what a speaker that registers again and again can keep open.
constexpr auto SupersededGrace = 30s;
constexpr int BeatLength = 4;

enum Deadline { KeepAlive, Superseded };
} // namespace

fortcpclient::fortcpclient(QMap<QString, fortcpclient*>* map, std::unique_ptr<DeviceSocket> socket,
                           QString sn, TimingWheel& wheel, QObject* parent)
    : QObject(parent)
    , m_socket(std::move(socket))
    , m_map(map)
    , m_wheel(wheel)
    , m_sn(std::move(sn)) {
    m_socket->setOwner(this);
    m_timer = m_wheel.every(KeepAliveInterval, this, KeepAlive);
}

void fortcpclient::wheelTimeout(int tag) {
    if (tag == KeepAlive)
        sn_heartbeat();
    else
        release();
}

void fortcpclient::wheelSoon() const {
    fetchObject(m_socket.get());
}

void fortcpclient::sn_datain(const char* bytes, int size) {
    m_alive = true;
    if (size == BeatLength)
        m_lastStatus = static_cast<unsigned char>(bytes[BeatLength - 1]);
    else
        emit backdata(QByteArray(bytes, size));
}

void fortcpclient::sn_heartbeat() {
    static const QByteArray beat = QByteArrayLiteral("OKOK");
    if (m_socket->isConnected() && m_socket->write(beat) > 0)
        return;
    m_timer.reset();
    if (mayLog("Dev is out line", m_sn))
        qInfo().noquote() << "Dev is out line" << m_sn << m_socket->errorText();
    leaveMap();
    emit sn_imoutline(m_sn);
    release();
}

void fortcpclient::sn_disconnect() {
    leaveMap();
    emit sn_imoutline(m_sn);
    if (mayLog("_Disconnect__fuck", m_sn))
        qInfo().noquote() << "_Disconnect__fuck" << m_sn << m_socket->peerAddress().toString()
                          << m_socket->errorText();
    release();
}

void fortcpclient::leaveMap() {
    const auto entry = m_map->constFind(m_sn);
    if (entry != m_map->constEnd() && *entry == this)
        m_map->remove(m_sn);
}

int fortcpclient::Writedata(const QByteArray& bytes) {
    if (m_alive && m_socket->isConnected())
        return sn_Writedata(bytes);
    if (mayLog("return: write", m_sn))
        qWarning().noquote() << "return: write:" << (m_alive ? "true" : "false") << m_sn;
    return 0;
}

int fortcpclient::sn_Writedata(const QByteArray& bytes) {
    return m_socket->write(bytes);
}

void fortcpclient::supersede() {
    QObject::disconnect(this, nullptr, nullptr, nullptr);
    m_timer = m_wheel.once(SupersededGrace, this, Superseded);
}

void fortcpclient::release() {
    QObject::disconnect(this, nullptr, nullptr, nullptr);
    m_timer.reset();
    m_socket->close();
    deleteLater();
}
