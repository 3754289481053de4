#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QString>

/// The binary packets by which a speaker describes itself. Pure functions: bytes in, value out.
namespace packets {

/// Length of a registration packet: 16 bytes of serial number, one byte that is not read, the volume.
constexpr int RegistrationLength = 18;
/// Bytes of the long status form before its trailer.
constexpr int StatusFormLength = 41;
/// What a long status form ends with.
inline QByteArray statusTrailer() {
    return QByteArrayLiteral("DEIFS");
}

/// Describes a registration packet: the strings "sn" (32 hexadecimal digits), "status", "vol",
/// "severip", "localip", "localmask", "localwg", "leixing", "xuhao", "severport" and the flag
/// "res_____". A packet of any other length gives only "res_____" = false.
QJsonObject registration(const QByteArray& packet);

/// Describes a long status form, trailer included, with the same keys; "sn" has 24 digits and "vol"
/// is a level. Without the trailer, or shorter than 41 bytes before it: only "res_____" = false.
QJsonObject statusForm(const QByteArray& packet);
/// The same for the 41 bytes alone.
QJsonObject statusFields(const QByteArray& form);

/// The four bytes of a dotted IPv4 address, each part read with base 10; a part that is missing or
/// no number is 0.
QByteArray addressBytes(const QString& dotted);
/// A port, high byte first.
QByteArray portBytes(quint16 port);

} // namespace packets
