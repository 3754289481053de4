#pragma once

#include "core/sql/sqltext.h"

#include <QByteArray>
#include <QHash>
#include <QStringList>

class QJsonObject;

/// What the device table is known to hold of each speaker, and what must be written to keep it so.
/// Pure; one thread at a time.
class DeviceStatus {
public:
    /// The command that asks a node for what has changed since the answer before: the node's mark is
    /// given back. A node that gives none tells everything every time.
    QByteArray question() const;
    /// Whether the last answer left something out, for which to ask at once.
    bool isMore() const { return m_isMore; }
    /// Takes a node's answer to question() and gives one UPDATE of `sbox_device_info` for each speaker whose
    /// values changed since the last answer. A counter in an entry (`pyl`, `rtl`, `rt`, `py`) is an
    /// amount to add. An answer that does not parse gives nothing; an entry without a valid "sn" or
    /// "status" is left out.
    QStringList changes(const QByteArray& answer);

private:
    struct Values {
        int vol = 0;
        int kind = 0;
        int xhstatus = 0;
        int status = 0;
        bool operator==(const Values& o) const {
            return vol == o.vol && kind == o.kind && xhstatus == o.xhstatus && status == o.status;
        }
    };
    QString change(const QJsonObject& entry);
    bool m_isMore = false;
    QString m_mark;                    ///< of the last answer
    QHash<QByteArray, Values> m_known; ///< by serial; of a node that gives no marks
};
