#pragma once

#include <QByteArray>
#include <QString>

/// What a command's answer says of speakers that it did not reach.
struct Unreached {
    int count = 0; ///< speakers; -1: all that it named, it was refused
    QString why;   ///< "res" and "info" of the answer
    explicit operator bool() const { return count != 0; }
};

/// Empty when all were reached, and when there is no answer or no "res" in it.
Unreached unreachedBy(const QByteArray& answer);

/// The request's "cmd", else its "mode", as it stands in compact JSON.
QByteArray commandWord(const QByteArray& request);
