#include "tasks/alarms/mgfile.h"

#include <algorithm>
#include <limits>
#include <numeric>
#include <QtEndian>

namespace {

constexpr int SizeBytes = 2;

qint32 fieldAt(const QByteArray& bytes, int index) {
    return qFromBigEndian<qint32>(bytes.constData() + index * 4);
}

template<typename Integer>
void append(QByteArray& bytes, Integer value) {
    const Integer big = qToBigEndian(value);
    bytes.append(reinterpret_cast<const char*>(&big), sizeof big);
}

bool isPacketSize(const QByteArray& packet) {
    return !packet.isEmpty() && packet.size() <= mg::MaxPacketBytes;
}

} // namespace

std::optional<mg::Header> mg::parseHeader(const QByteArray& bytes) {
    if (bytes.size() < HeaderBytes)
        return std::nullopt;
    return Header{fieldAt(bytes, 0), fieldAt(bytes, 1), fieldAt(bytes, 2),
                  fieldAt(bytes, 3), fieldAt(bytes, 4), fieldAt(bytes, 5)};
}

mg::Extent mg::extent(const Header& header, qint64 fileSize) {
    const qint64 claimedData = std::max<qint64>(header.byteCount, 0);
    const qint64 claimedEntries = std::max<qint64>(header.packetCount, 0);
    const qint64 behindHeader = std::max<qint64>(fileSize - HeaderBytes, 0);
    Extent found;
    found.dataBytes = std::min(claimedData, behindHeader);
    found.tableOffset = HeaderBytes + claimedData;
    const qint64 entries = std::max<qint64>(fileSize - found.tableOffset, 0) / SizeBytes;
    found.tableEntries = static_cast<int>(std::min({claimedEntries, entries, qint64{MaxPackets}}));
    found.isWhole = found.dataBytes == header.byteCount && found.tableEntries == header.packetCount;
    return found;
}

QVector<qint16> mg::parseSizes(const QByteArray& table) {
    QVector<qint16> sizes;
    sizes.reserve(table.size() / SizeBytes);
    for (int at = 0; at + SizeBytes <= table.size(); at += SizeBytes) {
        const auto size = qFromBigEndian<qint16>(table.constData() + at);
        if (size < 0)
            break;
        sizes.append(size);
    }
    return sizes;
}

QByteArray mg::pack(Header header, const QList<QByteArray>& packets) {
    const auto total =
        std::accumulate(packets.begin(), packets.end(), qint64{0},
                        [](qint64 sum, const QByteArray& packet) { return sum + packet.size(); });
    if (packets.size() > MaxPackets || total > std::numeric_limits<int>::max() / 2 ||
        !std::all_of(packets.begin(), packets.end(), isPacketSize))
        return {};
    header.byteCount = static_cast<qint32>(total);
    header.packetCount = packets.size();
    QByteArray bytes;
    bytes.reserve(HeaderBytes + header.byteCount + SizeBytes * header.packetCount);
    for (const qint32 field :
         {header.magic, header.samples, header.byteCount, header.packetCount, header.ms, header.sampleRate})
        append(bytes, field);
    for (const QByteArray& packet : packets)
        bytes += packet;
    for (const QByteArray& packet : packets)
        append(bytes, static_cast<qint16>(packet.size()));
    return bytes;
}
