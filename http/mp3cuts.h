#pragma once

#include <chrono>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <QByteArray>
#include <vector>

/// What is sent instead of a whole MP3 file: `head`, then the file from `offset` on.
struct Mp3Cut {
    QByteArray head; ///< at most one frame of silence, with what the first frame needs of those before it
    qint64 offset = 0;
};

/// MP3 files from a moment on, cut at the frame that holds it. A file is walked through once and its frames
/// are remembered while it is among those asked for last. Any thread.
class Mp3Cuts {
public:
    /// Bytes of an index are four a frame: 550 kB an hour.
    static constexpr size_t MaxFiles = 16;
    static constexpr size_t MaxFrames = 4'000'000; ///< of all files that are remembered

    /// Says which content a file has: its cut is remembered under it.
    using Key = QByteArray;

    enum class Outcome { Done, NoMp3, BeyondEnd };
    /// `descriptor` is open for reading and has `size` bytes.
    Outcome cut(int descriptor, qint64 size, const Key& key, std::chrono::milliseconds from, Mp3Cut& cut);

private:
    struct Index {
        int sampleRate = 0;
        int samples = 0;              ///< of a frame
        std::vector<quint32> offsets; ///< of the frames
    };
    using IndexPtr = std::shared_ptr<const Index>;
    IndexPtr indexOf(int descriptor, int size, const Key& key);

    std::mutex m_mutex;
    std::list<std::pair<Key, IndexPtr>> m_indexes; ///< the one asked for last comes first
};
