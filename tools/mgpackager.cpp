#include "tools/mgpackager.h"

#include "core/mp3frames.h"
#include "tasks/alarms/mgfile.h"

#include <limits>

namespace {

// Every frame is shorter than the shortest interval (72 ms, at 8 kHz), so that no packet is empty.
constexpr int MinMs = 80;
constexpr int MaxMs = 1000;

mgpackager::Result failure(const QString& why) {
    return {{}, why};
}

} // namespace

mgpackager::Result mgpackager::pack(const QByteArray& file, int ms) {
    if (ms < MinMs || ms > MaxMs)
        return failure(QStringLiteral("the interval must be %1 to %2 ms").arg(MinMs).arg(MaxMs));
    const QVector<mp3::Frame> frames = mp3::frames(file);
    if (frames.isEmpty())
        return failure(QStringLiteral("no MP3 frames in it"));
    mg::Header header;
    header.ms = ms;
    header.sampleRate = frames.first().sampleRate;
    QList<QByteArray> packets;
    qint64 samples = 0;
    for (const mp3::Frame& frame : frames) {
        if (frame.sampleRate != header.sampleRate)
            return failure(QStringLiteral("the sample rate changes at byte %1").arg(frame.offset));
        if (samples * 1000 >= qint64{ms} * header.sampleRate * packets.size())
            packets.append(QByteArray());
        packets.last() += file.mid(frame.offset, frame.bytes);
        samples += frame.samples;
    }
    if (samples > std::numeric_limits<qint32>::max())
        return failure(QStringLiteral("too long"));
    header.samples = static_cast<qint32>(samples);
    const QByteArray packed = mg::pack(header, packets);
    return packed.isEmpty() ? failure(QStringLiteral("too large")) : Result{packed, {}};
}

mgpackager::Result mgpackager::unpack(const QByteArray& file) {
    const auto header = mg::parseHeader(file);
    if (!header)
        return failure(QStringLiteral("no MG header"));
    const mg::Extent extent = mg::extent(*header, file.size());
    const auto sizes =
        mg::parseSizes(file.mid(static_cast<int>(extent.tableOffset), extent.tableEntries * 2));
    qint64 total = 0;
    for (const qint16 size : sizes)
        total += size;
    if (!extent.isWhole || sizes.size() != header->packetCount || total != extent.dataBytes)
        return failure(QStringLiteral("damaged: %1 of %2 bytes, %3 of %4 packets")
                           .arg(extent.dataBytes)
                           .arg(header->byteCount)
                           .arg(sizes.size())
                           .arg(header->packetCount));
    return {file.mid(mg::HeaderBytes, static_cast<int>(total)), {}};
}
