#include "core/mp3frames.h"

#include <algorithm>
#include <array>

namespace {

constexpr int HeaderBytes = 4;
constexpr int Id3HeaderBytes = 10;

// Bits of the header's second byte.
enum Version { Mpeg25 = 0, Mpeg2 = 2, Mpeg1 = 3 };
constexpr int LayerIII = 1;

constexpr std::array<int, 16> Mpeg1BitRates{0,   32,  40,  48,  56,  64,  80,  96,
                                            112, 128, 160, 192, 224, 256, 320, 0};
constexpr std::array<int, 16> Mpeg2BitRates{0, 8, 16, 24, 32, 40, 48, 56, 64, 80, 96, 112, 128, 144, 160, 0};
constexpr std::array<int, 4> Mpeg1SampleRates{44100, 48000, 32000, 0};

int byteAt(const QByteArray& file, int offset) {
    return static_cast<unsigned char>(file.at(offset));
}

int sampleRate(int version, int index) {
    const int rate = Mpeg1SampleRates.at(static_cast<std::size_t>(index));
    return version == Mpeg1 ? rate : version == Mpeg2 ? rate / 2 : rate / 4;
}

constexpr int Mono = 3;

int sideBytes(int version, bool isMono) {
    if (version == Mpeg1)
        return isMono ? 17 : 32;
    return isMono ? 9 : 17;
}

/// What is read at once; it holds some of the largest frames.
constexpr int BlockBytes = 256 * 1024;
constexpr int AheadBytes = 16 * 1024;

/// Bytes of an ID3v2 tag at `offset`, 0 when there is none.
int id3Bytes(const QByteArray& file, int offset) {
    if (file.size() - offset < Id3HeaderBytes || file.mid(offset, 3) != "ID3")
        return 0;
    int size = 0;
    for (int i = 6; i < Id3HeaderBytes; ++i)
        size = size << 7 | (byteAt(file, offset + i) & 0x7f);
    constexpr int HasFooter = 0x10;
    return Id3HeaderBytes + size + (byteAt(file, offset + 5) & HasFooter ? Id3HeaderBytes : 0);
}

bool isContents(const QByteArray& file, const mp3::Frame& frame) {
    const QByteArray head = file.mid(frame.offset, qMin(frame.bytes, 64));
    return head.contains("Xing") || head.contains("Info") || head.contains("VBRI");
}

/// A frame, and another one or the end of the file behind it: two bytes of tags or noise that look like
/// a header are not enough.
bool isConfirmed(const QByteArray& file, const mp3::Frame& frame) {
    const int next = frame.offset + frame.bytes;
    return next >= file.size() || mp3::frameAt(file, next) || file.mid(next, 3) == "TAG" ||
           file.mid(next, 8) == "APETAGEX" || file.mid(next, 3) == "ID3" || file.size() - next < HeaderBytes;
}

} // namespace

std::optional<mp3::Frame> mp3::frameAt(const QByteArray& file, int offset) {
    if (offset < 0 || file.size() - offset < HeaderBytes)
        return std::nullopt;
    const int second = byteAt(file, offset + 1);
    const int third = byteAt(file, offset + 2);
    const int version = second >> 3 & 3;
    if (byteAt(file, offset) != 0xff || (second & 0xe0) != 0xe0 || version == 1 ||
        (second >> 1 & 3) != LayerIII)
        return std::nullopt;
    const auto& bitRates = version == Mpeg1 ? Mpeg1BitRates : Mpeg2BitRates;
    const int bitRate = bitRates.at(static_cast<std::size_t>(third >> 4)) * 1000;
    Frame frame;
    frame.offset = offset;
    frame.sampleRate = sampleRate(version, third >> 2 & 3);
    if (bitRate == 0 || frame.sampleRate == 0)
        return std::nullopt;
    frame.samples = version == Mpeg1 ? 1152 : 576;
    frame.bytes = frame.samples / 8 * bitRate / frame.sampleRate + (third >> 1 & 1);
    if (frame.bytes > file.size() - offset)
        return std::nullopt;
    const int checksum = (second & 1) == 0 ? 2 : 0;
    const int side = offset + HeaderBytes + checksum;
    frame.head = HeaderBytes + checksum + sideBytes(version, byteAt(file, offset + 3) >> 6 == Mono);
    if (frame.head > frame.bytes)
        return std::nullopt;
    frame.behind =
        version == Mpeg1 ? byteAt(file, side) << 1 | byteAt(file, side + 1) >> 7 : byteAt(file, side);
    return frame;
}

QByteArray mp3::silenceBefore(const QByteArray& next, const QByteArray& data) {
    const auto frame = frameAt(next, 0);
    if (!frame)
        return {};
    QByteArray header = next.left(HeaderBytes);
    header[1] = static_cast<char>(byteAt(header, 1) | 1); // no checksum
    const int version = byteAt(header, 1) >> 3 & 3;
    const int head = HeaderBytes + sideBytes(version, byteAt(header, 3) >> 6 == Mono);
    for (int rate = byteAt(header, 2) >> 4; rate < 15; ++rate) {
        header[2] = static_cast<char>((byteAt(header, 2) & 0x0d) | rate << 4); // without padding
        const int bitRate =
            (version == Mpeg1 ? Mpeg1BitRates : Mpeg2BitRates).at(static_cast<std::size_t>(rate));
        const int bytes = frame->samples / 8 * bitRate * 1000 / frame->sampleRate;
        if (bytes - head >= data.size())
            return header + QByteArray(bytes - HeaderBytes - data.size(), '\0') + data;
    }
    return {};
}

void mp3::walk(int size, const Source& source, const std::function<void(const Frame&)>& found) {
    QByteArray block;
    int start = 0;
    bool isFirst = true;
    for (int offset = 0; offset <= size - HeaderBytes;) {
        const bool isWhole = start + block.size() >= size;
        if (offset - start + AheadBytes > block.size() && (!isWhole || block.isEmpty())) {
            start = offset;
            block = source(start, BlockBytes);
            if (block.size() < HeaderBytes)
                return; // the file has become shorter
        }
        const int at = offset - start;
        if (at > block.size() - HeaderBytes)
            return;
        if (const int tag = id3Bytes(block, at)) {
            offset += std::min(tag, size - offset);
            continue;
        }
        auto frame = frameAt(block, at);
        if (!frame || !isConfirmed(block, *frame)) {
            ++offset;
            continue;
        }
        const bool hasSound = !isFirst || !isContents(block, *frame);
        isFirst = isFirst && !hasSound;
        frame->offset = offset;
        offset += frame->bytes;
        if (hasSound)
            found(*frame);
    }
}

QVector<mp3::Frame> mp3::frames(const QByteArray& file) {
    QVector<Frame> all;
    walk(
        file.size(), [&](int offset, int most) { return file.mid(offset, most); },
        [&](const Frame& frame) { all.append(frame); });
    return all;
}
