#pragma once

#include "device/words.h"

#include <QByteArray>
#include <QHostAddress>
#include <QJsonObject>
#include <QList>
#include <QString>
#include <QStringList>
#include <vector>

/// The speaker's side of the device protocol (docs/device-protocol.md): bytes in, values out, no socket.
namespace sim {

using words::Op;

struct Command {
    Op op = Op::Unknown;
    QByteArray bytes;    ///< the whole command as it came
    QByteArray argument; ///< what follows the command word
};

/// Takes the keep-alives ("OKOK") off both ends of a read of the control connection; returns how many.
int takeKeepAlives(QByteArray& read);
/// What is left of the read, as one command. Commands have no framing: each is told by its word and ends with
/// the read. Two that were read together are one that is wrong: a text or a list with the second at its end,
/// or Unknown where the length of the first is fixed.
Command commandOf(const QByteArray& read);

/// One entry of a play list: "<address>[suffix][ options]".
struct ListEntry {
    QString address;     ///< without suffix and options
    QChar suffix;        ///< 'B', 'F': binds the address to that alarm line; 'A', '5': play it at once; null
    QStringList options; ///< e.g. "--no-buffer", "gpio132_on"
};
/// Entries are separated by line feeds; empty ones are dropped.
std::vector<ListEntry> parseList(const QByteArray& list);

/// What a list entry or a shell-style line changes about the alarm lines.
struct Binding {
    enum class Kind { None, Bind, Clear } kind = Kind::None;
    QString line;    ///< "B", "F" or the target file of a shell-style line
    QString address; ///< what to fetch when the line fires
};
/// "….mp3B" and "….mp3F" bind, "B_NONE.mp3" and "F_NONE.mp3" clear; `<fetch> "<address>" > <target> &&`
/// binds the target (blanks may be missing), `<fetch> … && rm <target> &&` clears it. An address that
/// carries another one ("…?t=http://…") stands for the one it carries.
Binding parseBinding(const QByteArray& entry);

/// 18 bytes: the serial, one unused byte, the volume.
QByteArray registrationPacket(const QByteArray& serial, quint8 volume);
/// The address and port of "K" and "Y" arguments (6 bytes).
QHostAddress addressOf(const QByteArray& argument);
quint16 portOf(const QByteArray& argument);
/// Level 1 to 25 of a volume code byte; 18 for a byte that is no code.
int levelOfCode(quint8 code);
/// `first` + `index` as a number of 16 big-endian bytes, wrapping around.
QByteArray serialAt(const QByteArray& first, quint32 index);

} // namespace sim
