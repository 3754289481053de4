#include "journal/journalwatch.h"

#include "device/saobj.h"
#include "device/severinit.h"

#include <algorithm>
#include <QDateTime>

// From commands on their way and from what speakers do to the evidence of receipts.

namespace {

const auto UnknownHere = QStringLiteral("no speaker of this node");
const auto OutOfUse = QStringLiteral("disabled");
const auto LineBroke = QStringLiteral("the connection broke");
const auto OthersStop = QStringLiteral("by the stop of another broadcast");
constexpr qint64 LongestBatch = 5000; ///< ms between a report and its batch

QString nameFrom(const QStringList& files) {
    return files.isEmpty() ? QString() : files.first().section(QLatin1Char('/'), -1);
}

Broadcast::Kind kindFrom(const PlayCommand& command) {
    switch (command.terms.value_or(PlayTerms()).kind) {
    case PlayTerms::Kind::Bell:
        return Broadcast::Kind::Bell;
    case PlayTerms::Kind::Alarm:
        return Broadcast::Kind::Alarm;
    case PlayTerms::Kind::Direct:
        break;
    }
    return Broadcast::Kind::Direct;
}

} // namespace

// --- commands ---

quint64 Journal::Watch::orderOf(const PlayCommand& command) const {
    const bool isForeign = BroadcastNumbers::nodeOf(command.order) != m_state.node;
    if (command.order != 0 && (isForeign || m_state.find(command.order)))
        return command.order;
    Broadcast direct;
    direct.name = nameFrom(command.files);
    direct.origin.path = command.peer;
    return m_state.journal.begin(direct);
}

quint64 Journal::Watch::begin(const PlayCommand& command) {
    m_last = nullptr;
    if (command.kind != PlayKind::Play)
        return command.order;
    const quint64 order = orderOf(command);
    Running* running = m_state.find(order);
    if (!running) {
        Broadcast foreign;
        foreign.name = nameFrom(command.files);
        foreign.origin.path = command.peer;
        foreign.kind = kindFrom(command);
        foreign.priority = command.terms.value_or(PlayTerms()).priority;
        running = &m_state.open(order, foreign);
        running->isForeign = true;
    }
    ++running->commands;
    running->addFiles(command.files);
    m_last = running;
    return order;
}

void Journal::Watch::cameOf(const PlayCommand& command, const QString& sn, SAobj* session, Fate fate,
                            const Refusal* refusal) {
    if (command.kind == PlayKind::Stop) {
        if (session && fate == Fate::Sent && session->order != 0)
            m_state.stopped(command, *session, steadyMs());
        return;
    }
    if (!m_last || m_last->id() != command.order)
        m_last = m_state.find(command.order);
    if (!m_last)
        return;
    if (fate == Fate::Sent)
        sent(*m_last, *session, steadyMs());
    else
        notSent(*m_last, sn, session, fate, refusal);
}

void Journal::Watch::sent(Running& running, SAobj& session, qint64 now) {
    const bool isFirst = running.started() == 0;
    PlayLink& link = session;
    const bool isIts = link.order == running.id();
    if (link.order != 0 && !isIts)
        m_state.taken(session, running.id(), now);
    link.place = running.place(session.sn(), isIts ? std::optional(link.place) : std::nullopt);
    link.order = running.id();
    link.isOnSameLine = true;
    running.hear(link.place, Evidence::Sent, now);
    if (isFirst)
        m_state.decideBell(running);
}

void Journal::Watch::notSent(Running& running, const QString& sn, SAobj* session, Fate fate,
                             const Refusal* refusal) {
    // One without a session may stand in the list twice.
    const bool isIts = session && static_cast<PlayLink&>(*session).order == running.id();
    const std::optional<quint32> hint = !session ? std::optional(~0U)
                                        : isIts  ? std::optional(static_cast<PlayLink&>(*session).place)
                                                 : std::nullopt;
    const quint32 place = running.place(sn, hint);
    const QString reason = fate == Fate::Unknown    ? UnknownHere
                           : fate == Fate::Broken   ? LineBroke
                           : fate == Fate::Disabled ? OutOfUse
                           : refusal                ? refusal->reason
                                                    : QString();
    const bool isForbidden = fate == Fate::Disabled || fate == Fate::Refused;
    running.hear(place, isForbidden ? Evidence::Forbidden : Evidence::Away, steadyMs(),
                 m_state.reasons.numberOf(reason), refusal ? refusal->by : 0);
}

void Journal::Watch::end(const PlayCommand& command) {
    m_last = nullptr;
    Running* const running = command.kind == PlayKind::Play ? m_state.find(command.order) : nullptr;
    if (!running)
        return;
    running->commands = std::max(0, running->commands - 1);
    running->setUsed();
    m_state.touched(*running);
}

/// The speaker gets another broadcast.
void Journal::State::taken(SAobj& session, quint64 by, qint64 now) {
    const PlayLink& link = session;
    if (Running* const before = find(link.order)) {
        before->hear(link.place, Evidence::Taken, now, 0, by);
        touched(*before);
    }
}

void Journal::State::stopped(const PlayCommand& command, SAobj& session, qint64 now) {
    const PlayLink& link = session;
    Running* const running = find(link.order);
    if (!running)
        return;
    const bool isIts = command.order == link.order;
    const bool isOthers = command.order != 0 && !isIts;
    running->hear(link.place, isIts && command.isOver ? Evidence::TimeOver : Evidence::Stop, now,
                  reasons.numberOf(isOthers ? OthersStop : QString()));
    touched(*running);
}

// --- speakers ---

void Journal::State::heard(const SpeakerEvents::Batch& batch) {
    const qint64 now = steadyMs();
    const qint64 wallNow = QDateTime::currentMSecsSinceEpoch();
    for (const SpeakerEvents::Report& report : batch.reports)
        heardReport(report, now - std::clamp<qint64>(wallNow - report.at, 0, LongestBatch));
    for (const SpeakerEvents::Change& change : batch.speakers) {
        if (change.session && (change.kinds & (SpeakerEvents::Online | SpeakerEvents::Offline)))
            heardChange(*change.session, change.kinds, now);
    }
}

void Journal::State::heardReport(const SpeakerEvents::Report& report, qint64 now) {
    using What = SpeakerEvents::Report::What;
    const SAobj* const session = devices->session(report.sn);
    Running* const running = session ? find(static_cast<const PlayLink&>(*session).order) : nullptr;
    std::optional<SpeakerHealth> change;
    {
        const std::lock_guard lock(healthLock);
        change = health.reported(report.sn, HealthBook::Time(now));
    }
    if (change)
        tellHealth(report.sn, *change);
    if (!running || report.what == What::Paused || (report.what == What::Path && report.path.isEmpty()))
        return;
    const bool isBegun = report.what == What::Playing || running->isOwnFile(report.path);
    const bool isOver = report.what == What::Done || report.what == What::Waiting;
    if (running->hear(static_cast<const PlayLink&>(*session).place,
                      isOver    ? Evidence::Over
                      : isBegun ? Evidence::Begun
                                : Evidence::OtherBegun,
                      now))
        touched(*running);
}

void Journal::State::heardChange(SAobj& session, SpeakerEvents::Kinds kinds, qint64 now) {
    const PlayLink& link = session;
    Running* const running = link.isOnSameLine ? nullptr : find(link.order);
    if (running && running->hear(link.place, Evidence::LineEnded, now))
        touched(*running);
    if (session.remoteIp().isEmpty()) // it has never been here
        return;
    std::vector<SpeakerHealth> changes;
    {
        const std::lock_guard lock(healthLock);
        if (kinds & SpeakerEvents::Offline) {
            if (const auto change = health.wentOffline(session.sn(), HealthBook::Time(now)))
                changes.push_back(*change);
        }
        if (session.isOnline()) {
            if (const auto change = health.cameOnline(session.sn(), HealthBook::Time(now)))
                changes.push_back(*change);
        }
    }
    for (const SpeakerHealth change : changes)
        tellHealth(session.sn(), change);
}

void Journal::State::wasSilent(const QString& sn) {
    std::optional<SpeakerHealth> change;
    {
        const std::lock_guard lock(healthLock);
        change = health.wasSilent(sn, HealthBook::Time(steadyMs()));
    }
    if (change)
        tellHealth(sn, *change);
}

void Journal::State::tellHealth(const QString& sn, SpeakerHealth now) {
    emit journal.healthChanged(sn, now);
    const SAobj* const session = devices ? devices->session(sn) : nullptr;
    journal.note(NoteKind::Speaker, nameOf(now), session ? session->name() : QString(), {}, sn);
}
