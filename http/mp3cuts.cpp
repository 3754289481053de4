#include "http/mp3cuts.h"

#include "core/mp3frames.h"

#include <algorithm>
#include <cerrno>
#include <limits>
#include <unistd.h>

namespace {

QByteArray readAt(int descriptor, qint64 offset, int most) {
    QByteArray bytes(most, Qt::Uninitialized);
    ssize_t got = 0;
    do
        got = ::pread(descriptor, bytes.data(), static_cast<size_t>(most), offset);
    while (got < 0 && errno == EINTR);
    bytes.truncate(static_cast<int>(std::max<ssize_t>(got, 0)));
    return bytes;
}

std::optional<mp3::Frame> frameAt(int descriptor, quint32 offset, QByteArray& bytes) {
    constexpr int LargestFrame = 4096;
    bytes = readAt(descriptor, offset, LargestFrame);
    return mp3::frameAt(bytes, 0);
}

/// The sound data that `frame`, at this place of the file, expects of the frames before it; shorter when the
/// file does not have it either.
QByteArray dataBefore(int descriptor, const std::vector<quint32>& offsets, size_t frame, int wanted) {
    QByteArray data;
    QByteArray bytes;
    while (data.size() < wanted && frame-- > 0) {
        const auto before = frameAt(descriptor, offsets[frame], bytes);
        if (!before)
            break;
        data.prepend(bytes.mid(before->head, before->bytes - before->head));
    }
    return data.right(wanted);
}

} // namespace

Mp3Cuts::Outcome Mp3Cuts::cut(int descriptor, qint64 size, const Key& key, std::chrono::milliseconds from,
                              Mp3Cut& cut) {
    if (size > std::numeric_limits<int>::max())
        return Outcome::NoMp3;
    const IndexPtr index = indexOf(descriptor, static_cast<int>(size), key);
    if (index->offsets.empty())
        return Outcome::NoMp3;
    const auto number = static_cast<quint64>(from.count()) * static_cast<quint64>(index->sampleRate) /
                        static_cast<quint64>(index->samples * 1000);
    if (number >= index->offsets.size())
        return Outcome::BeyondEnd;
    const auto place = static_cast<size_t>(number);
    cut.offset = index->offsets[place];
    cut.head.clear();
    QByteArray bytes;
    const auto frame = frameAt(descriptor, index->offsets[place], bytes);
    if (frame && frame->behind > 0)
        cut.head = mp3::silenceBefore(bytes, dataBefore(descriptor, index->offsets, place, frame->behind));
    return Outcome::Done;
}

Mp3Cuts::IndexPtr Mp3Cuts::indexOf(int descriptor, int size, const Key& key) {
    {
        const std::lock_guard lock(m_mutex);
        const auto found = std::find_if(m_indexes.begin(), m_indexes.end(),
                                        [&](const auto& entry) { return entry.first == key; });
        if (found != m_indexes.end()) {
            m_indexes.splice(m_indexes.begin(), m_indexes, found);
            return found->second;
        }
    }
    const auto index = std::make_shared<Index>();
    mp3::walk(
        size, [=](int offset, int most) { return readAt(descriptor, offset, most); },
        [&](const mp3::Frame& frame) {
            if (index->offsets.empty()) {
                index->sampleRate = frame.sampleRate;
                index->samples = frame.samples;
            }
            index->offsets.push_back(static_cast<quint32>(frame.offset));
        });
    const std::lock_guard lock(m_mutex);
    m_indexes.emplace_front(key, index);
    size_t frames = index->offsets.size();
    size_t files = 1;
    const auto isTooMuch = [&](const auto& entry) {
        frames += entry.second->offsets.size();
        return ++files > MaxFiles || frames > MaxFrames;
    };
    m_indexes.erase(std::find_if(std::next(m_indexes.begin()), m_indexes.end(), isTooMuch), m_indexes.end());
    return index;
}
