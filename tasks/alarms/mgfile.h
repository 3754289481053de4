#pragma once

#include <optional>
#include <QByteArray>
#include <QList>
#include <QVector>

/// The packed audio format of alarm files: a header of six big-endian 32-bit integers, the packets back
/// to back, then one big-endian 16-bit size for each packet. Nothing here touches a file.
namespace mg {

constexpr quint32 Magic = 0xCACA6668;
constexpr int HeaderBytes = 24;
/// Sizes are signed; a negative one ends the list.
constexpr int MaxPacketBytes = 0x7fff;
/// Packets of the longest file that is played to its end: 28 hours at 100 ms. Bounds the size table.
constexpr int MaxPackets = 1'000'000;

struct Header {
    qint32 magic = static_cast<qint32>(Magic); ///< `MG_magic`, told but not enforced
    qint32 samples = 0;                        ///< `MG_all_nsample`, of the whole file
    qint32 byteCount = 0;                      ///< `MG_Bytecount`, of all packets
    qint32 packetCount = 0;                    ///< `MG_count_pack`
    qint32 ms = 0;                             ///< `MG_ms`, between two packets
    qint32 sampleRate = 0;                     ///< `MG_ramplse`, Hz
};

/// Nothing when there are fewer than 24 bytes.
std::optional<Header> parseHeader(const QByteArray& bytes);

/// Where things really are in a file of `fileSize` bytes, whatever its header claims.
struct Extent {
    qint64 dataBytes = 0;   ///< from offset 24
    qint64 tableOffset = 0; ///< of the size table
    int tableEntries = 0;   ///< that are there
    bool isWhole = true;    ///< the header's claims fit the file
};
Extent extent(const Header& header, qint64 fileSize);

/// The sizes of a table, up to the first negative one.
QVector<qint16> parseSizes(const QByteArray& table);

/// A whole file. Sets the counts of `header` from the packets, each of 1 to MaxPacketBytes bytes.
/// Empty when a packet has another size or there are too many or too much.
QByteArray pack(Header header, const QList<QByteArray>& packets);

} // namespace mg
