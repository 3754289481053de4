#pragma once

#include <QByteArray>
#include <QHostAddress>
#include <QJsonObject>
#include <QList>
#include <QString>
#include <QStringList>
#include <vector>

/// The speaker's side of the device protocol (docs/device-protocol.md): bytes in, values out, no socket.
namespace sim {

/// What a command asks of the speaker; the comment is its form on the wire.
enum class Op {
    DeviceInfo,    ///< "JXXXXX"
    VolumeCode,    ///< "SETVOL", one code byte
    Volume,        ///< "V", one byte
    Microphone,    ///< "M", echo byte, gain byte
    Debug,         ///< "IK" or "IS"
    Gpio,          ///< "G01" or "G00"
    ServerAddress, ///< "Y", IPv4 address, port (high byte first)
    DataConnect,   ///< "K", IPv4 address, port (high byte first)
    Time,          ///< "AM", year - 1970, month, day, hour, minute, second
    ContentServer, ///< "A0" or "A&", address
    PlayList,      ///< "A1" or "A6", list
    Preload,       ///< "A2", list
    Purge,         ///< "A3", list
    PlayUrl,       ///< "A4", address
    Stop,          ///< "A5" or "A7"
    Stream,        ///< "AS", one entry; only digits: test of a stored task
    TaskAdd,       ///< "AT", record
    TaskRemove,    ///< "AD", decimal id
    TaskStop,      ///< "AE", decimal id
    TaskList,      ///< "AL"
    Reboot,        ///< "AR"
    TasksClear,    ///< "A@"
    TasksStop,     ///< "AF"
    FileTransfer,  ///< "A#", three texts joined by "`"
    Speak,         ///< "X", text
    AlarmState,    ///< "GET_BAOJING", "GET_BAOJINGEE" or "GET_BAOJINGGE"
    Unknown        ///< no command, or more than one that were read together
};

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
