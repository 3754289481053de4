#pragma once

#include "device/speakerevents.h"

#include <functional>
#include <QObject>
#include <QString>

class SAobj;
class Severinit;
class StateMirror;

/// Mirrors what is known of the speakers: goes by what speaker events tell, writes "STATUS" of each when the
/// registry says that it is time, and everything again when the mirror has lost it. Main loop only. Owner:
/// start-up; both that it is given outlive it.
class SpeakerMirror : public QObject {
    Q_OBJECT
public:
    SpeakerMirror(Severinit& devices, StateMirror& mirror, QObject* parent = nullptr);

public slots:
    /// Writes what is known of every session, a batch a turn of the loop and no faster than the mirror takes
    /// it: it is back and may have lost what it had.
    void remirror();

private:
    void take(const SpeakerEvents::Batch& batch);
    void take(const SpeakerEvents::Change& change);
    void takeAlarm(const SpeakerEvents::Alarm& alarm);
    void writeLine(const SAobj& session);
    void writeRegistration(const SAobj& session);
    void writeAll(const SAobj& session);
    void writeStored(const QStringList& serials);
    void refresh();
    void write(const SAobj& session, const char* field, const QVariant& value);
    void sweep(const QString& from, const std::function<bool()>& mayGoOn,
               const std::function<void(const SAobj&)>& visit, const std::function<void()>& done);

    Severinit& m_devices;
    StateMirror& m_mirror;
    bool m_isRefreshing = false; ///< a refresh has begun and not reached the last session
};
