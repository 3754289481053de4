// Everything of the device link and the command servers that reads a peer's bytes. The first byte chooses
// the reader, the second the size of the pieces in which a command stream arrives.
#include "device/blocklist.h"
#include "device/commandframe.h"
#include "device/packets.h"
#include "device/saobj.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <QJsonValue>

namespace {

void require(bool holds) {
    if (!holds)
        std::abort();
}

void packet(const QByteArray& bytes) {
    const QJsonObject registration = packets::registration(bytes);
    require(registration.value(QLatin1String("res_____")).toBool() == (bytes.size() == 18));
    require(registration.value(QLatin1String("sn")).toString().size() == (bytes.size() == 18 ? 32 : 0));
    const QJsonObject form = packets::statusForm(bytes);
    if (form.value(QLatin1String("res_____")).toBool()) {
        const int level = form.value(QLatin1String("vol")).toString().toInt();
        require(level >= 1 && level <= 25 && form.value(QLatin1String("sn")).toString().size() == 24);
    }
    require(packets::addressBytes(QString::fromUtf8(bytes)).size() == 4);
}

void report(const QByteArray& bytes) {
    static TimingWheel wheel;
    static SpeakerEvents events;
    static SessionEnv env{wheel, events, {}, {}, 0, {}};
    SAobj session(QStringLiteral("00"), env, nullptr);
    session.sn_onlinebackdata(bytes);
    session.dido(bytes);
    require(!session.isBound() && session.playingPath().size() <= 512);
}

QByteArrayList requests(const QByteArray& bytes, int piece) {
    CommandFrameParser parser;
    QByteArrayList found;
    for (int at = 0; at < bytes.size(); at += piece) {
        parser.append(bytes.constData() + at, std::min(piece, bytes.size() - at));
        CommandFrameParser::Result result = parser.next();
        for (; result.status == CommandFrameParser::Status::Request; result = parser.next())
            found.append(result.json);
        if (result.status == CommandFrameParser::Status::Broken)
            break;
    }
    require(parser.bufferedBytes() <= bytes.size());
    return found;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 2)
        return 0;
    const QByteArray bytes(reinterpret_cast<const char*>(data + 2), static_cast<int>(size - 2));
    switch (data[0] % 4) {
    case 0:
        packet(bytes);
        break;
    case 1:
        report(bytes);
        break;
    case 2:
        parseBlockList(bytes);
        break;
    default: // however it is cut, the stream holds the same requests
        require(requests(bytes, bytes.size() + 1) == requests(bytes, data[1] % 16 + 1));
        break;
    }
    return 0;
}
