#include "device/severinit.h"

#include "core/logthrottle.h"
#include "core/loop/devicesocket.h"
#include "device/blocklist.h"
#include "device/fortcpclient.h"
#include "device/saobj.h"
#include "device/severinit_state.h"
#include "device/volume.h"

#include <algorithm>
#include <chrono>
#include <QDebug>
#include <QJsonObject>

using namespace std::chrono_literals;

// The registry; the dispatcher is in dispatcher.cpp.

namespace {
constexpr auto RefreshInterval = 1563ms;
const QString BlockListFile = QStringLiteral("unuse.conf");

/// Chunks that may wait for a speaker at most, whatever is configured: a minute and more.
constexpr int MaxAryLen = 1000;

/// "vol", "leixing" and "xuhao" are decimal texts in a registration.
int number(const QJsonObject& description, QLatin1String key) {
    return description.value(key).toVariant().toInt();
}

/// Sessions that make room for each line of the log that tells of it.
constexpr int EvictionsALine = 1000;
} // namespace

Severinit::Severinit(QString updateListPath, QString upstreamcdn, QString localcdn,
                     const QString& /*privateKeyText*/, const QString& /*publicKeyText*/,
                     const QString& /*key*/, QString askey, int /*TSWait*/, int PackSize, int AryLen,
                     int Check_, int Check_len, QString LocalIP, int /*OPort0*/, int /*OPort1*/,
                     int /*BjPort*/, int /*DataPort*/, int /*ManagePort*/, int /*Netcross_Port0*/,
                     int /*Netcross_Port1*/, int /*DataPortBack2*/, int /*Pastcmd*/, QObject* parent)
    : QObject(parent)
    , m_state(std::make_unique<State>()) {
    m_state->updateListPath = std::move(updateListPath);
    m_state->upstreamcdn = std::move(upstreamcdn);
    m_state->localcdn = std::move(localcdn);
    m_state->askey = std::move(askey);
    m_state->sessionSettings = {std::clamp(AryLen, 1, MaxAryLen), Check_, Check_len};
    m_state->env.wifiBacklog = static_cast<int>(
        std::clamp<qint64>(qint64{m_state->sessionSettings.AryLen} * PackSize, 0, DeviceSocket::MaxBacklog));
    m_state->env.serverAddress = std::move(LocalIP);
    for (const QString& sn : readBlockList(BlockListFile))
        m_state->blocked.insert(sn);
    m_state->dispatcher = std::make_unique<Dispatcher>(*this);
    connect(&m_state->refreshTimer, &QTimer::timeout, this, &Severinit::reflushredis);
}

Severinit::~Severinit() {
    removeSessionsOf(this);
}

bool Severinit::matchesServiceKey(const QString& sskey) const {
    return !m_state->askey.isEmpty() && sskey == m_state->askey;
}

bool Severinit::serialAllowed(const QString& sn) const {
    const QReadLocker locker(&m_state->blockedLock);
    return !m_state->blocked.contains(sn);
}

QStringList Severinit::blockedSerials() const {
    const QReadLocker locker(&m_state->blockedLock);
    return m_state->blocked.values();
}

bool Severinit::setBlockedSerials(const QStringList& serials) {
    if (!writeBlockList(BlockListFile, serials))
        return false;
    const QWriteLocker locker(&m_state->blockedLock);
    m_state->blocked = QSet<QString>(serials.begin(), serials.end());
    return true;
}

const LicenceCheck& Severinit::licence() const {
    return m_state->licence;
}

unsigned char Severinit::to_vol(unsigned char level) {
    return volumeCode(level);
}

void Severinit::setCommandGap(std::chrono::milliseconds gap) {
    m_state->env.commandGap = std::max(gap, 0ms);
}

void Severinit::setStopsFirst(bool areFirst) {
    m_state->env.stopsFirst = areFirst;
}

void Severinit::setStoredSerials(const QStringList& serials, const QStringList& restricted) {
    m_state->storedSerials = serials;
    for (const QString& sn : serials)
        m_state->strangers.setStored(sn, true);
    for (const QString& sn : restricted)
        m_state->restricted.insert(sn);
}

void Severinit::init_vison() {
    const QStringList serials = std::exchange(m_state->storedSerials, {});
    for (const QString& sn : serials) {
        if (SAobj* const session = addSession(sn, this))
            session->tellAgain();
    }
    emit storedKnown(serials);
}

SAobj* Severinit::addSession(const QString& sn, QObject* parent) {
    if (SAobj* const known = session(sn))
        return known;
    if (!serialAllowed(sn) || (m_state->sessions.size() >= MaxSessions && !makeRoom())) {
        if (mayLog("No session", QString()))
            qWarning().noquote() << "No session for" << sn << "- blocked, or" << MaxSessions << "are reached";
        return nullptr;
    }
    auto* const added = new SAobj(sn, m_state->env, parent);
    added->setName(QStringLiteral("No Name"));
    added->setSettings(m_state->sessionSettings);
    added->setEnabled(!isRestricted(sn));
    m_state->sessions.insert(sn, added);
    m_state->bySerial.insert(sn, added);
    return added;
}

SAobj* Severinit::admit(const QString& sn, const QHostAddress& peer, QObject* parent) {
    const bool isCrowded = m_state->sessions.size() >= CrowdedSessions;
    if (isCrowded && !session(sn) && !m_state->strangers.isStored(sn) &&
        !m_state->strangers.mayEnter(peer, wheel().now()))
        return nullptr;
    return addSession(sn, parent);
}

bool Severinit::makeRoom() {
    SAobj* const longest = m_state->strangers.longestOffline();
    if (!longest)
        return false;
    if (m_state->evicted++ % EvictionsALine == 0)
        qWarning() << "Registry full, sessions that made room so far:" << m_state->evicted;
    endSession(longest);
    return true;
}

void Severinit::endSession(SAobj* session) {
    const QString sn = session->sn();
    m_state->strangers.cameOnline(*session);
    m_state->sessions.remove(sn);
    m_state->bySerial.remove(sn);
    delete session;
}

// A whole fleet's: those that stay are listed anew, instead of each that goes being looked up in the map. The
// others go in the order of the children: the parent looks for each among those that it still has, from the
// first on.
void Severinit::removeSessionsOf(const QObject* parent) {
    QMap<QString, SAobj*> rest;
    m_state->bySerial.clear();
    for (SAobj* const session : std::as_const(m_state->sessions)) {
        if (session->parent() == parent)
            continue;
        rest.insert(rest.cend(), session->sn(), session);
        m_state->bySerial.insert(session->sn(), session);
    }
    m_state->sessions = rest;
    const QObjectList children = parent->children();
    for (QObject* const child : children)
        delete qobject_cast<SAobj*>(child);
}

void Severinit::setGroupReader(std::function<QStringList(const QString&)> reader) {
    m_state->groupReader = std::move(reader);
}

QStringList Severinit::group(const QString& name) const {
    return m_state->groupReader ? m_state->groupReader(name) : QStringList();
}

const QMap<QString, SAobj*>& Severinit::sessions() const {
    return m_state->sessions;
}

SAobj* Severinit::session(const QString& sn) const {
    return m_state->bySerial.value(sn);
}

bool Severinit::isOnline(const QString& sn) const {
    const SAobj* const found = session(sn);
    return found && found->isOnline();
}

bool Severinit::isRestricted(const QString& sn) const {
    return m_state->restricted.contains(sn);
}

void Severinit::setRestricted(const QString& sn, bool restricted) {
    const bool hasRoom = m_state->restricted.size() < MaxSessions; // made-up serials come without end
    if (restricted && (hasRoom || session(sn)))
        m_state->restricted.insert(sn);
    else if (!restricted)
        m_state->restricted.remove(sn);
    if (SAobj* const found = session(sn))
        found->setEnabled(!restricted);
}

TimingWheel& Severinit::wheel() {
    return m_state->wheel;
}

SpeakerEvents& Severinit::events() {
    return m_state->events;
}

void Severinit::setMp3Feeder(int streamId, Mp3Feeder* feeder) {
    if (feeder)
        m_state->env.feeders.insert(streamId, feeder);
    else
        m_state->env.feeders.remove(streamId);
}

const SessionEnv& Severinit::env() const {
    return m_state->env;
}

QVector<OnlineDevice> Severinit::onlineDevices() const {
    QVector<OnlineDevice> devices;
    for (const SAobj* const session : std::as_const(m_state->sessions)) {
        if (session->isOnline())
            devices.append({session->sn(), session->onlineState(), session->vol(), session->voltage(),
                            session->debugState()});
    }
    return devices;
}

QSet<QString> Severinit::onlineSerials() const {
    QSet<QString> serials;
    for (const SAobj* const session : std::as_const(m_state->sessions)) {
        if (session->isOnline())
            serials.insert(session->sn());
    }
    return serials;
}

Severinit::Changes Severinit::changesSince(const QByteArray& mark) {
    // A mark is the run, the last change told and, while there are more, the last one to be told: what
    // changes again meanwhile waits for the next question, or answers would never come to an end.
    const QByteArray run = QByteArray::number(m_state->began);
    const QList<QByteArray> parts = mark.split('.');
    const auto part = [&](int index) {
        return parts.at(0) == run ? parts.value(index).toULongLong() : 0;
    };
    quint64 last = part(1);
    const quint64 until = part(2);
    std::vector<std::pair<quint64, const SAobj*>> changed;
    for (SAobj* const session : std::as_const(m_state->sessions)) {
        const quint64 change = session->changeOfNumbers(m_state->changes);
        if (change > last && (until == 0 || change <= until))
            changed.emplace_back(change, session);
    }
    const size_t told = std::min(changed.size(), MaxChanges);
    std::partial_sort(changed.begin(), changed.begin() + static_cast<ptrdiff_t>(told), changed.end());
    Changes changes;
    for (size_t i = 0; i < told; ++i) {
        last = changed[i].first;
        changes.sessions.push_back(changed[i].second);
    }
    changes.isMore = told < changed.size();
    const QByteArray end = QByteArray::number(until == 0 ? m_state->changes : until);
    changes.mark = run + '.' + (changes.isMore ? QByteArray::number(last) + '.' + end : end);
    return changes;
}

void Severinit::tellAgain(const QStringList& serials) {
    QMetaObject::invokeMethod(
        this,
        [this, serials] {
            for (const QString& sn : serials) {
                m_state->strangers.setStored(sn, true);
                if (SAobj* const found = session(sn)) {
                    m_state->strangers.cameOnline(*found); // it may not make room from now on
                    found->tellAgain();
                }
            }
        },
        Qt::QueuedConnection);
}

void Severinit::forgetStored(const QString& sn) {
    QMetaObject::invokeMethod(
        this,
        [this, sn] {
            m_state->strangers.setStored(sn, false);
            if (SAobj* const found = session(sn); found && !found->isOnline())
                m_state->strangers.wentOffline(*found);
        },
        Qt::QueuedConnection);
}

void Severinit::printinfo() {
    if (quiet)
        return;
    const auto online = std::count_if(m_state->sessions.cbegin(), m_state->sessions.cend(),
                                      [](const SAobj* session) { return session->isOnline(); });
    qInfo() << "REDIDSONLINE:" << online << m_state->sessions.size();
}

// --- binding ---

void Severinit::sasn_online(const QString& sn, fortcpclient* client, unsigned port) {
    if (SAobj* const found = bindable(sn, client))
        bind(found, client, port);
}

void Severinit::sasn_online_CL(const QString& sn, fortcpclient* client, unsigned port, bool flag) {
    SAobj* const found = bindable(sn, client);
    if (!found)
        return;
    found->setEnabled(flag);
    bind(found, client, port);
}

SAobj* Severinit::bindable(const QString& sn, fortcpclient* client) const {
    SAobj* const found = session(sn);
    if (!found)
        client->release();
    return found;
}

void Severinit::bind(SAobj* session, fortcpclient* client, unsigned port) {
    connect(client, &fortcpclient::sn_imoutline, this, &Severinit::sasn_offline);
    const QJsonObject& description = client->description();
    session->setSettings(m_state->sessionSettings);
    session->setMp3Port(static_cast<quint16>(port));
    const QString address = description.value(QLatin1String("localip")).toString();
    if (address != m_state->lastAddress)
        m_state->lastAddress = address;
    session->setLocalIp(m_state->lastAddress);
    session->setVol(number(description, QLatin1String("vol")));
    session->setXuhao(number(description, QLatin1String("xuhao")));
    m_state->strangers.cameOnline(*session);
    session->gonline(client, number(description, QLatin1String("leixing")));
    emit registered(session->sn());
}

void Severinit::sasn_offline(const QString& sn) {
    SAobj* const found = session(sn);
    if (!found) {
        if (mayLog("one device  on  line but not means info databases", sn))
            qInfo().noquote() << "one device  on  line but not means info databases;" << sn;
        return;
    }
    found->goffline();
    m_state->strangers.wentOffline(*found);
    if (mayLog("off line", sn))
        qInfo().noquote() << "off line" << sn;
}

void Severinit::init_redis() {
    m_state->refreshTimer.start(RefreshInterval);
}
