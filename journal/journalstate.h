#pragma once

#include "journal/health.h"
#include "journal/journal.h"
#include "journal/journalwriter.h"
#include "journal/numbers.h"
#include "journal/running.h"

#include "device/speakerevents.h"

#include <map>
#include <memory>
#include <mutex>
#include <QHash>
#include <QTimer>
#include <unordered_map>

/// What the journal's parts share; private to the room.
struct Journal::State {
    State(Journal& owner, Severinit* registry, int nodeNumber);
    ~State();

    Running* find(quint64 id) const;
    Running& open(quint64 id, const Broadcast& broadcast);
    /// Somebody is interested in what becomes of it.
    void touched(Running& running);

    // journalwatch.cpp: what happens to commands and speakers
    void heard(const SpeakerEvents::Batch& batch);
    void heardReport(const SpeakerEvents::Report& report, qint64 now);
    void heardChange(SAobj& session, SpeakerEvents::Kinds kinds, qint64 now);
    void taken(SAobj& session, quint64 by, qint64 now);
    void stopped(const PlayCommand& command, SAobj& session, qint64 now);
    void tellHealth(const QString& sn, SpeakerHealth now);
    void wasSilent(const QString& sn);

    // journalclock.cpp: what happens with time
    void tick();
    void look(Running& running, qint64 now);
    bool isDone(const Running& running, qint64 now) const;
    void finish(Running& running, BroadcastState how, const QString& reason, qint64 now);
    void store(Running& running, qint64 now, bool isUrgent);
    void storeAll();
    void forgetOld(qint64 now);
    void watchClock();

    // entries
    void decideBell(const Running& running);
    void closeBell(const Running& running);
    void write(const Bell& bell, qint64 lateMs);
    void write(EntryRow entry);
    void noteEnd(const Running& running);

    Journal& journal;
    Severinit* devices;
    const int node;
    BroadcastNumbers numbers;
    std::unique_ptr<JournalWriter> writer; ///< null without a database
    std::unique_ptr<Watch> watch;
    std::unordered_map<quint64, std::unique_ptr<Running>> broadcasts;
    std::unordered_map<quint64, Bell> openBells; ///< by broadcast: nothing has been sent yet
    Reasons reasons;
    mutable std::mutex healthLock;
    HealthBook health; ///< guarded by healthLock
    QTimer ticks;      ///< while there are broadcasts
    QTimer clockWatch;
    qint64 clockOffset = 0; ///< wall clock less steady clock, ms, at the last look
    std::vector<quint64> changed;
    bool hasNewEntries = false;
};

/// ms of the steady clock.
qint64 steadyMs();
