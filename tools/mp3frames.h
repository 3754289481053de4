#pragma once

#include <optional>
#include <QByteArray>
#include <QVector>

/// MPEG audio layer III, frame by frame (ISO 11172-3 and 13818-3, and the 2.5 extension). Pure.
namespace mp3 {

struct Frame {
    int offset = 0; ///< in the file
    int bytes = 0;  ///< whole frame
    int sampleRate = 0;
    int samples = 0; ///< of each channel: 1152 or 576
};

/// The frame whose header begins at `offset`; nothing when there is none or it is not whole.
std::optional<Frame> frameAt(const QByteArray& file, int offset);

/// The audio frames of a file in order: tags in front, behind and in between are skipped, and so is
/// the first frame when it holds no sound but the encoder's table of contents.
QVector<Frame> frames(const QByteArray& file);

} // namespace mp3
