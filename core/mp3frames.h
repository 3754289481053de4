#pragma once

#include <functional>
#include <optional>
#include <QByteArray>
#include <QVector>

/// MPEG audio layer III, frame by frame (ISO 11172-3 and 13818-3, and the 2.5 extension). Pure.
namespace mp3 {

struct Frame {
    int offset = 0; ///< in the file
    int bytes = 0;  ///< whole frame
    int head = 0;   ///< of them before its sound data: header, checksum, side information
    int behind = 0; ///< bytes of its sound that stand in the frames before it
    int sampleRate = 0;
    int samples = 0; ///< of each channel: 1152 or 576
};

/// The frame whose header begins at `offset`; nothing when there is none or it is not whole.
std::optional<Frame> frameAt(const QByteArray& file, int offset);

/// A frame of silence that fits before `next` (the bytes of a frame) and hands `data` on to it: what it
/// expects of the frames before it. Empty when no frame of its kind has the room.
QByteArray silenceBefore(const QByteArray& next, const QByteArray& data);

/// Bytes of a file from `offset` on: `most` of them, fewer only at its end.
using Source = std::function<QByteArray(int offset, int most)>;
/// Calls `found` with each of the frames that frames() gives, reading no more than a block at a time.
void walk(int size, const Source& source, const std::function<void(const Frame&)>& found);

/// The audio frames of a file in order: tags in front, behind and in between are skipped, and so is
/// the first frame when it holds no sound but the encoder's table of contents.
QVector<Frame> frames(const QByteArray& file);

} // namespace mp3
