#include "device/fortcpclient.h"

#include "core/logthrottle.h"
#include "core/loop/fetch.h"
#include "device/words.h"

#include <algorithm>
#include <cctype>
#include <chrono>
#include <numeric>
#include <QDebug>
#include <utility>

using namespace std::chrono_literals;

namespace {
constexpr auto KeepAliveInterval = 5000ms;
/// How long a connection that a newer one has replaced may stay: time for the speaker to close it
/// itself, and a bound on what a speaker that registers again and again can keep open.
constexpr auto SupersededGrace = 30s;
constexpr int BeatLength = 4;

enum Deadline { KeepAlive, Superseded, NextCommand };

bool isStop(const QByteArray& command) {
    return command == "A5" || command == "A7";
}

/// "AS" with a number tries a stored task.
bool isPlay(const QByteArray& command) {
    return command.startsWith("A1") || command.startsWith("A4") || command.startsWith("A6") ||
           (command.startsWith("AS") && !(command.size() > 2 && std::isdigit(command.at(2))));
}
} // namespace

fortcpclient::fortcpclient(QMap<QString, fortcpclient*>* map, std::unique_ptr<DeviceSocket> socket,
                           QString sn, const SessionEnv& env, QObject* parent)
    : QObject(parent)
    , m_socket(std::move(socket))
    , m_map(map)
    , m_env(env)
    , m_sn(std::move(sn)) {
    m_heardAt = clock();
    m_commandAt = m_heardAt - static_cast<quint32>(m_env.commandGap.count());
    m_socket->setOwner(this);
    m_timer = m_env.wheel.every(KeepAliveInterval, this, KeepAlive);
}

fortcpclient::~fortcpclient() = default;

void fortcpclient::wheelTimeout(int tag) {
    switch (tag) {
    case KeepAlive:
        return sn_heartbeat();
    case NextCommand:
        return writeNext();
    default:
        return release();
    }
}

void fortcpclient::wheelSoon() const {
    fetchObject(m_socket.get());
}

void fortcpclient::sn_datain(const char* bytes, int size) {
    m_alive = true;
    m_heardAt = clock();
    if (size == BeatLength)
        m_lastStatus = static_cast<unsigned char>(bytes[BeatLength - 1]);
    else
        emit backdata(QByteArray(bytes, size));
}

void fortcpclient::sn_heartbeat() {
    if (m_socket->isConnected() && writeBeat())
        return;
    m_timer.reset();
    if (mayLog("Dev is out line", m_sn))
        qInfo().noquote() << "Dev is out line" << m_sn << m_socket->errorText();
    leaveMap();
    emit sn_imoutline(m_sn);
    release();
}

/// Close behind a command it would be read with it, so it waits as one does; commands that wait already
/// show the speaker as well that somebody is there.
bool fortcpclient::writeBeat() {
    static const QByteArray beat = words::KeepAlive;
    if (m_waiting)
        return true;
    return (isPausing() ? putOff(beat) : m_socket->write(beat)) > 0;
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
        return isPausing() ? putOff(bytes) : sn_Writedata(bytes);
    if (mayLog("return: write", m_sn))
        qWarning().noquote() << "return: write:" << (m_alive ? "true" : "false") << m_sn;
    return 0;
}

int fortcpclient::sn_Writedata(const QByteArray& bytes) {
    m_commandAt = clock();
    return m_socket->write(bytes);
}

// --- the pause between commands ---

quint32 fortcpclient::clock() const {
    return static_cast<quint32>(m_env.wheel.now().count());
}

std::chrono::milliseconds fortcpclient::sinceCommand() const {
    return std::chrono::milliseconds(clock() - m_commandAt);
}

bool fortcpclient::isHeardWithin(std::chrono::milliseconds time) const {
    return std::chrono::milliseconds(clock() - m_heardAt) <= time;
}

bool fortcpclient::isPausing() const {
    return m_waiting || sinceCommand() < m_env.commandGap;
}

/// A play that has not gone out when its stop comes never does; whether there were any.
bool fortcpclient::dropPlays() {
    QList<QByteArray>& commands = m_waiting->commands;
    const auto plays = std::remove_if(commands.begin(), commands.end(), isPlay);
    const bool areAny = plays != commands.end();
    commands.erase(plays, commands.end());
    m_waiting->bytes = std::accumulate(commands.begin(), commands.end(), 0,
                                       [](int sum, const QByteArray& one) { return sum + one.size(); });
    return areAny;
}

int fortcpclient::putOff(const QByteArray& bytes) {
    const bool isFirst = m_waiting && m_env.stopsFirst && isStop(bytes) && dropPlays();
    if (m_waiting &&
        (m_waiting->commands.size() >= MaxWaiting || m_waiting->bytes + bytes.size() > MaxWaitingBytes)) {
        qWarning().noquote() << "Too many commands wait, not sent:" << m_sn << bytes.left(2);
        return -1;
    }
    if (!m_waiting) {
        m_waiting = std::make_unique<Waiting>();
        m_waiting->turn = m_env.wheel.once(m_env.commandGap - sinceCommand(), this, NextCommand);
    }
    m_waiting->commands.insert(isFirst ? 0 : m_waiting->commands.size(), bytes);
    m_waiting->bytes += bytes.size();
    return bytes.size();
}

void fortcpclient::writeNext() {
    const QByteArray next = m_waiting->commands.takeFirst();
    m_waiting->bytes -= next.size();
    if (m_waiting->commands.isEmpty())
        m_waiting.reset();
    else
        m_waiting->turn = m_env.wheel.once(m_env.commandGap, this, NextCommand);
    sn_Writedata(next);
}

void fortcpclient::supersede() {
    QObject::disconnect(this, nullptr, nullptr, nullptr);
    m_waiting.reset();
    m_timer = m_env.wheel.once(SupersededGrace, this, Superseded);
}

void fortcpclient::release() {
    QObject::disconnect(this, nullptr, nullptr, nullptr);
    m_timer.reset();
    m_waiting.reset();
    m_socket->close();
    deleteLater();
}
