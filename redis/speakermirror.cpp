#include "redis/speakermirror.h"

#include "device/saobj.h"
#include "device/severinit.h"
#include "redis/statemirror.h"

#include <chrono>
#include <QDateTime>
#include <QDebug>
#include <QTimer>
#include <utility>

using namespace std::chrono_literals;

namespace {

/// Sessions written in one turn of the loop: a few milliseconds.
constexpr int SweepBatch = 1000;
/// Before a sweep looks again whether a mirror that has fallen behind has caught up.
constexpr auto SweepPause = 5ms;

constexpr SpeakerEvents::Kinds Line = SpeakerEvents::Online | SpeakerEvents::Offline;
constexpr SpeakerEvents::Kinds Mirrored = Line | SpeakerEvents::Described | SpeakerEvents::VolumeSet |
                                          SpeakerEvents::MicrophonesSet | SpeakerEvents::AlarmInput |
                                          SpeakerEvents::Detailed;

} // namespace

SpeakerMirror::SpeakerMirror(Severinit& devices, StateMirror& mirror, QObject* parent)
    : QObject(parent)
    , m_devices(devices)
    , m_mirror(mirror) {
    devices.events().listen(this, Mirrored, [this](const SpeakerEvents::Batch& batch) { take(batch); });
    connect(&devices, &Severinit::storedKnown, this, &SpeakerMirror::writeStored);
    connect(&devices, &Severinit::refreshDue, this, &SpeakerMirror::refresh);
}

void SpeakerMirror::take(const SpeakerEvents::Batch& batch) {
    if (!m_mirror.isConnected())
        return;
    for (const SpeakerEvents::Change& change : batch.speakers) {
        if (change.session)
            take(change);
    }
    for (const SpeakerEvents::Detail& detail : batch.details)
        m_mirror.Set_sn_key_value(detail.sn, QLatin1String(detail.name), detail.value);
    for (const SpeakerEvents::Alarm& alarm : batch.alarms)
        takeAlarm(alarm);
}

void SpeakerMirror::take(const SpeakerEvents::Change& change) {
    const SAobj& session = *change.session;
    if (change.kinds & (SpeakerEvents::Online | SpeakerEvents::Described))
        writeRegistration(session);
    if (change.kinds & Line)
        writeLine(session); // after the registration, which says "Online" in any case
    if (change.kinds & SpeakerEvents::VolumeSet)
        write(session, "vol", session.vol());
    if (change.kinds & SpeakerEvents::MicrophonesSet) {
        write(session, "mic_e", session.micE());
        write(session, "mic_d", session.micD());
    }
}

void SpeakerMirror::takeAlarm(const SpeakerEvents::Alarm& alarm) {
    const QString time =
        QDateTime::fromMSecsSinceEpoch(alarm.at).toString(QStringLiteral("yyyy-MM-dd:hh:mm:ss"));
    m_mirror.Set_sn_key_value(alarm.sn, QStringLiteral("Warming"), time);
    if (alarm.first == '1')
        m_mirror.Warmingup_push(alarm.sn, time);
    else
        m_mirror.Warmingdown_push(alarm.sn, time);
}

void SpeakerMirror::write(const SAobj& session, const char* field, const QVariant& value) {
    m_mirror.Set_sn_key_value(session.sn(), QLatin1String(field), value);
}

void SpeakerMirror::writeLine(const SAobj& session) {
    write(session, "Line", session.isOnline() ? QStringLiteral("Online") : QStringLiteral("Offline"));
}

void SpeakerMirror::writeRegistration(const SAobj& session) {
    m_mirror.online_newdevices(session.sn(), session.kind(), session.vol(), session.micD(), session.micE(),
                               session.localIp(), session.remoteIp(),
                               session.registrationTime(QLatin1Char(' ')));
}

void SpeakerMirror::writeAll(const SAobj& session) {
    writeLine(session);
    write(session, "STATUS", session.statusWord());
    write(session, "vol", session.vol());
    write(session, "mic_d", session.micD());
    write(session, "mic_e", session.micE());
    if (!session.hasRegistered())
        return;
    write(session, "sn", session.sn());
    write(session, "kindsk", session.kind());
    write(session, "l_ip", session.localIp());
    write(session, "r_ip", session.remoteIp());
    write(session, "Reg_Date", session.registrationTime(QLatin1Char('-')));
}

/// A speaker may have registered before its serial was known.
void SpeakerMirror::writeStored(const QStringList& serials) {
    if (!m_mirror.isConnected())
        return;
    for (const QString& sn : serials) {
        const SAobj* const session = m_devices.session(sn);
        if (session && !session->isOnline())
            writeLine(*session);
    }
}

void SpeakerMirror::refresh() {
    if (!m_mirror.isConnected() || std::exchange(m_isRefreshing, true))
        return;
    sweep(
        {}, [] { return true; },
        [this](const SAobj& session) {
            if (m_mirror.isConnected())
                write(session, "STATUS", session.statusWord());
        },
        [this] { m_isRefreshing = false; });
}

void SpeakerMirror::remirror() {
    sweep(
        {}, [this] { return !m_mirror.isBacklogged(); },
        [this](const SAobj& session) {
            if (m_mirror.isConnected())
                writeAll(session);
        },
        [this] { qInfo() << "redis: sessions written again:" << m_devices.sessions().size(); });
}

/// Visits the sessions from serial `from` on, a batch now and the rest in the loop's next turns; more may
/// come meanwhile. `done` follows the last.
void SpeakerMirror::sweep(const QString& from, const std::function<bool()>& mayGoOn,
                          const std::function<void(const SAobj&)>& visit, const std::function<void()>& done) {
    const QMap<QString, SAobj*>& sessions = m_devices.sessions();
    auto entry = sessions.lowerBound(from);
    const bool goesOn = mayGoOn();
    for (int i = 0; goesOn && i < SweepBatch && entry != sessions.constEnd(); ++i, ++entry)
        visit(**entry);
    if (entry == sessions.constEnd())
        return done();
    QTimer::singleShot(goesOn ? 0ms : SweepPause, this,
                       [=, next = entry.key()] { sweep(next, mayGoOn, visit, done); });
}
