#pragma once

#include <optional>
#include <QByteArray>
#include <QString>

class QIODevice;

/// Uploaded sound: what it is, how to make the speakers' MP3 of it, how long that plays. Any thread;
/// the encoders block their caller.
namespace audio {

enum class Format { Unknown, Wav, Aiff, Mp3, Mpeg4, Amr, Ogg, Flac, Aac };

/// Tells a format by the first bytes alone (64 are enough); names don't count.
Format sniff(const QByteArray& head);

struct Measure {
    int seconds; ///< play length, rounded up, at least 1
    qint64 bytes;
    QString checksum; ///< MD5 of the file, hex
};

/// Measures an MP3 file frame by frame. Empty when it holds no decodable frame.
std::optional<Measure> measure(const QString& path);
/// Play length in seconds from the header alone, rounded up; 0 when it is no MP3.
int quickLength(const QString& path);

enum class Outcome { Done, Undecodable, ProgramFailed };

/// Makes the MP3 `target` of `source`, at `bitrate` kbit/s and 44.1 kHz. `directory` is the run's own
/// working directory: `source`, which must lie there too, may be
/// renamed. What lame does not read itself ffmpeg decodes for it, without a file between them.
Outcome encode(const QString& source, const QString& target, const QString& directory, int bitrate);

/// First bytes tell JPEG, PNG or WebP: "jpg", "png", "webp"; empty for anything else.
QString pictureSuffix(const QByteArray& head);

} // namespace audio
