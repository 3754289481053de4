#include "device/packets.h"

#include "device/volume.h"

#include <QJsonValue>
#include <QStringList>

namespace packets {
namespace {

unsigned byteAt(const QByteArray& bytes, int index) {
    return static_cast<unsigned char>(bytes.at(index));
}

QString numberAt(const QByteArray& bytes, int index) {
    return QString::number(byteAt(bytes, index));
}

QString wordAt(const QByteArray& bytes, int index) {
    return QString::number(byteAt(bytes, index) << 8U | byteAt(bytes, index + 1));
}

QString addressAt(const QByteArray& bytes, int index) {
    return QString::asprintf("%d.%d.%d.%d", byteAt(bytes, index), byteAt(bytes, index + 1),
                             byteAt(bytes, index + 2), byteAt(bytes, index + 3));
}

QString hexText(const QByteArray& bytes) {
    return QString::fromLatin1(bytes.toHex());
}

/// What a registration packet says of every speaker alike.
QJsonObject registrationDefaults() {
    const QString noAddress = QStringLiteral("0.0.0.0");
    return {{QStringLiteral("status"), QStringLiteral("1")},
            {QStringLiteral("severip"), noAddress},
            {QStringLiteral("localip"), noAddress},
            {QStringLiteral("localmask"), noAddress},
            {QStringLiteral("localwg"), noAddress},
            {QStringLiteral("leixing"), QStringLiteral("1")},
            {QStringLiteral("xuhao"), QStringLiteral("1")},
            {QStringLiteral("severport"), QStringLiteral("0")},
            {QStringLiteral("res_____"), true}};
}

QJsonObject refused() {
    return {{QStringLiteral("res_____"), false}};
}

} // namespace

QJsonObject registration(const QByteArray& packet) {
    if (packet.size() != RegistrationLength)
        return refused();
    static const QJsonObject defaults = registrationDefaults();
    QJsonObject description = defaults;
    description.insert(QStringLiteral("sn"), hexText(packet.left(16)));
    description.insert(QStringLiteral("vol"), numberAt(packet, 17));
    return description;
}

QJsonObject statusForm(const QByteArray& packet) {
    const QByteArray trailer = statusTrailer();
    return packet.endsWith(trailer) ? statusFields(packet.left(packet.size() - trailer.size())) : refused();
}

QJsonObject statusFields(const QByteArray& form) {
    if (form.size() < StatusFormLength)
        return refused();
    const auto volCode = static_cast<unsigned char>(form.at(39));
    return {{QStringLiteral("localip"), addressAt(form, 0)},
            {QStringLiteral("localmask"), addressAt(form, 4)},
            {QStringLiteral("localwg"), addressAt(form, 8)},
            {QStringLiteral("xuhao"), wordAt(form, 18)},
            {QStringLiteral("leixing"), numberAt(form, 20)},
            {QStringLiteral("sn"), hexText(form.mid(21, 12))},
            {QStringLiteral("severip"), addressAt(form, 33)},
            {QStringLiteral("severport"), wordAt(form, 37)},
            {QStringLiteral("vol"), QString::number(volumeLevel(volCode))},
            {QStringLiteral("status"), numberAt(form, 40)},
            {QStringLiteral("res_____"), true}};
}

QByteArray addressBytes(const QString& dotted) {
    const QStringList parts = dotted.split(QLatin1Char('.'));
    QByteArray bytes(4, '\0');
    for (int i = 0; i < 4 && i < parts.size(); ++i)
        bytes[i] = static_cast<char>(parts.at(i).toInt(nullptr, 10));
    return bytes;
}

QByteArray portBytes(quint16 port) {
    QByteArray bytes(2, '\0');
    bytes[0] = static_cast<char>(port >> 8U);
    bytes[1] = static_cast<char>(port & 0xFFU);
    return bytes;
}

} // namespace packets
