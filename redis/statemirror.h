#pragma once

#include <QString>
#include <QVariant>

/// What SpeakerMirror writes to: the Redis state link. Main loop only. The writers return at once and report
/// nothing.
class StateMirror {
public:
    virtual ~StateMirror() = default;

    /// True while writes reach the server. Every caller tests it first.
    virtual bool isConnected() const = 0;
    /// True while so much waits to be sent that a sweep over every speaker should pause.
    virtual bool isBacklogged() const = 0;
    /// Writes one field of the speaker's hash.
    virtual void Set_sn_key_value(const QString& sn, const QString& field, const QVariant& value) = 0;
    /// Alarm input events; the crossing of names and lists is the catalogue's own.
    virtual void Warmingup_push(const QString& sn, const QString& time) = 0;
    virtual void Warmingdown_push(const QString& sn, const QString& time) = 0;
    /// A speaker has registered: writes its whole hash. `regDate` "yyyy-MM-dd hh:mm:ss".
    virtual void online_newdevices(const QString& sn, int kindsk, int vol, int mic_d, int mic_e,
                                   const QString& l_ip, const QString& r_ip, const QString& regDate) = 0;
};
