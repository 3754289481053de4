#include "tools/mp3frames.h"

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
    return frame.bytes <= file.size() - offset ? std::optional(frame) : std::nullopt;
}

QVector<mp3::Frame> mp3::frames(const QByteArray& file) {
    QVector<Frame> found;
    int offset = 0;
    while (offset <= file.size() - HeaderBytes) {
        if (const int tag = id3Bytes(file, offset)) {
            offset += qMin(tag, file.size() - offset);
            continue;
        }
        const auto frame = frameAt(file, offset);
        if (!frame || !isConfirmed(file, *frame)) {
            ++offset;
            continue;
        }
        if (!found.isEmpty() || !isContents(file, *frame))
            found.append(*frame);
        offset += frame->bytes;
    }
    return found;
}
