#pragma once

#include "core/loop/timingwheel.h"
#include "device/dispatcher.h"
#include "device/licence.h"
#include "device/sessionenv.h"
#include "device/severinit.h"
#include "device/speakerevents.h"
#include "device/strangers.h"

#include <functional>
#include <QDateTime>
#include <QHash>
#include <QMap>
#include <QReadWriteLock>
#include <QSet>
#include <QString>
#include <QStringList>
#include <QTimer>

/// What the registry and the dispatcher share; private to the device room.
struct Severinit::State {
    // --- settings as start-up gave them ---
    QString updateListPath; ///< list of speaker programs to distribute
    QString upstreamcdn;
    QString localcdn;
    QString askey; ///< service key
    SessionSettings sessionSettings;
    AcceptingLicence licence;

    // --- registry ---
    TimingWheel wheel;
    SpeakerEvents events;
    SessionEnv env{wheel, events, {}, {}, 0, {}};
    QMap<QString, SAobj*> sessions;  ///< in the order of the serials
    QHash<QString, SAobj*> bySerial; ///< the same; a command to a fleet looks every serial up
    QSet<QString> restricted;
    Strangers strangers;
    QString lastAddress; ///< of a registration; many from one address share its text
    int evicted = 0;     ///< sessions that made room so far
    mutable QReadWriteLock blockedLock;
    QSet<QString> blocked; ///< guarded by blockedLock
    QStringList storedSerials;
    QTimer refreshTimer;
    std::function<QStringList(const QString&)> groupReader;

    // --- dispatcher ---
    const qint64 began = QDateTime::currentMSecsSinceEpoch(); ///< tells this run's marks from others'
    quint64 changes = 0;                                      ///< of the numbers of sessions, as far as seen
    std::unique_ptr<Dispatcher> dispatcher;
    std::vector<PlayWatch*> playWatches; ///< not owned
};
