#include "device/speakerevents.h"

#include "core/logthrottle.h"
#include "device/saobj.h"

#include <exception>
#include <QDateTime>
#include <QDebug>
#include <QElapsedTimer>
#include <utility>

namespace {
/// The listeners rest for so many times as long as they took: they have a fifth of the loop at most.
constexpr qint64 RestShare = 4;
} // namespace

SpeakerEvents::SpeakerEvents() {
    m_timer.setSingleShot(true);
    m_timer.setTimerType(Qt::PreciseTimer);
    QObject::connect(&m_timer, &QTimer::timeout, &m_timer, [this] { tell(); });
}

void SpeakerEvents::listen(const QObject* context, Kinds kinds, Listener listener) {
    m_listeners.push_back({context, kinds, std::move(listener)});
    m_wanted |= kinds;
}

void SpeakerEvents::add(SAobj& session, Kind kind) {
    ChangeLink& link = session;
    if (link.kinds == 0) {
        link.place = static_cast<quint32>(m_changed.size());
        m_changed.push_back(&session);
        schedule();
    }
    link.kinds |= kind;
}

void SpeakerEvents::noteAlarm(SAobj& session, char first, char second) {
    if (!(m_wanted & AlarmInput))
        return;
    add(session, AlarmInput);
    if (m_alarms.size() < MaxAlarms)
        m_alarms.push_back({session.sn(), first, second, QDateTime::currentMSecsSinceEpoch()});
    else if (mayLog("alarm inputs lost", QString()))
        qWarning().noquote() << "alarm inputs lost, too many at once:" << session.sn();
}

void SpeakerEvents::noteDetail(SAobj& session, const char* name, const QVariant& value) {
    if (!wants(Detailed))
        return;
    add(session, Detailed);
    const qint64 bytes =
        value.type() == QVariant::ByteArray ? value.toByteArray().size() : value.toString().size() * 2;
    if (m_details.size() < MaxDetails && m_detailBytes + bytes <= MaxDetailBytes) {
        m_details.push_back({session.sn(), name, value});
        m_detailBytes += bytes;
    } else if (mayLog("details lost", QString())) {
        qWarning().noquote() << "reports lost, too many at once:" << session.sn() << name;
    }
}

void SpeakerEvents::noteReport(SAobj& session, Report::What what, const QString& path) {
    if (!(m_wanted & Reported))
        return;
    add(session, Reported);
    if (m_reports.size() < MaxReports)
        m_reports.push_back({session.sn(), what, path, QDateTime::currentMSecsSinceEpoch()});
    else if (mayLog("reports lost", QString()))
        qWarning().noquote() << "reports lost, too many at once:" << session.sn();
}

void SpeakerEvents::forget(const SAobj& session) {
    const ChangeLink& link = session;
    if (link.kinds != 0)
        m_changed[link.place] = nullptr;
    if (!m_isTelling)
        return;
    for (std::vector<Change>* const told : {&m_told, &m_batch.speakers}) {
        for (Change& change : *told) {
            if (change.session == &session)
                change.session = nullptr;
        }
    }
}

void SpeakerEvents::schedule() {
    if (!m_isTelling && !m_timer.isActive())
        m_timer.start(static_cast<int>(m_rest.remainingTime()));
}

void SpeakerEvents::tell() {
    if (std::exchange(m_isTelling, true)) // a listener serves the loop
        return;
    QElapsedTimer clock;
    clock.start();
    m_told.clear();
    for (SAobj* const session : std::as_const(m_changed)) {
        if (session)
            m_told.push_back({session, std::exchange(static_cast<ChangeLink&>(*session).kinds, Kinds{0})});
    }
    m_changed.clear();
    m_toldAlarms.clear();
    m_toldAlarms.swap(m_alarms);
    m_toldDetails.clear();
    m_toldDetails.swap(m_details);
    m_detailBytes = 0;
    m_toldReports.clear();
    m_toldReports.swap(m_reports);
    for (const Entry& entry : m_listeners) {
        if (entry.context)
            tell(entry);
    }
    m_isTelling = false;
    dropDead();
    m_rest.setRemainingTime(RestShare * clock.elapsed());
    if (!m_changed.empty())
        schedule();
}

void SpeakerEvents::tell(const Entry& entry) {
    m_batch.speakers.clear();
    for (const Change& change : m_told) {
        if (const auto kinds = static_cast<Kinds>(change.kinds & entry.kinds); change.session && kinds)
            m_batch.speakers.push_back({change.session, kinds});
    }
    m_batch.alarms.clear();
    if (entry.kinds & AlarmInput)
        m_batch.alarms = m_toldAlarms;
    m_batch.details.clear();
    if (entry.kinds & Detailed)
        m_batch.details = m_toldDetails;
    m_batch.reports.clear();
    if (entry.kinds & Reported)
        m_batch.reports = m_toldReports;
    if (m_batch.speakers.empty() && m_batch.alarms.empty() && m_batch.details.empty() &&
        m_batch.reports.empty())
        return;
    try {
        entry.listener(m_batch);
    } catch (const std::exception& error) {
        if (mayLog("speaker events", QString()))
            qWarning() << "speaker events: a listener failed:" << error.what();
    } catch (...) {
        if (mayLog("speaker events", QString()))
            qWarning() << "speaker events: a listener failed";
    }
}

void SpeakerEvents::dropDead() {
    m_listeners.remove_if([](const Entry& entry) { return !entry.context; });
    m_wanted = 0;
    for (const Entry& entry : m_listeners)
        m_wanted |= entry.kinds;
}
