#pragma once

#include <QByteArray>
#include <QString>

/// MG files from MP3 files and back.
namespace mgpackager {

struct Result {
    QByteArray bytes; ///< empty on failure
    QString error;
};

/// Packs an MP3 file: each packet holds the whole frames that begin within its `ms` milliseconds, so
/// that the packets, released one every `ms`, keep the pace of the sound for any length. `ms` is
/// 80 to 1000; about 100 is what speakers are fed at.
Result pack(const QByteArray& mp3, int ms);

/// The audio frames of an MG file in order, as one MP3 stream.
Result unpack(const QByteArray& mg);

} // namespace mgpackager
