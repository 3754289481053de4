#pragma once

#include <chrono>
#include <QByteArray>

namespace sim {

struct Mp3Facts {
    bool isMp3 = false;                  ///< at least one MPEG layer III frame could be decoded
    std::chrono::milliseconds length{0}; ///< play length of the whole file
    long rate = 0;                       ///< samples per second
    int channels = 0;
};

/// Decodes the head of the file and counts its frames. Never fails: what is no MP3 is told as such.
Mp3Facts checkMp3(const QByteArray& file);

} // namespace sim
