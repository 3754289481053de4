#include "tools/mp3check.h"

#include <array>
#include <cstring>
#include <memory>
#include <mpg123.h>

namespace sim {
namespace {

/// Bytes that may be skipped in search of a frame: more means that the file is something else.
constexpr long kResyncLimit = 64 * 1024;

struct Cursor {
    const QByteArray* file;
    qint64 at = 0;
};

ssize_t readFrom(void* handle, void* buffer, size_t count) {
    auto* cursor = static_cast<Cursor*>(handle);
    const auto left = static_cast<size_t>(cursor->file->size() - cursor->at);
    const size_t n = std::min(left, count);
    std::memcpy(buffer, cursor->file->constData() + cursor->at, n);
    cursor->at += static_cast<qint64>(n);
    return static_cast<ssize_t>(n);
}

off_t seekIn(void* handle, off_t offset, int whence) {
    auto* cursor = static_cast<Cursor*>(handle);
    const qint64 base = whence == SEEK_SET ? 0 : whence == SEEK_CUR ? cursor->at : cursor->file->size();
    const qint64 target = base + offset;
    if (target < 0 || target > cursor->file->size())
        return -1;
    cursor->at = target;
    return target;
}

/// True when one block of samples comes out of the decoder.
bool decodes(mpg123_handle* handle) {
    std::array<unsigned char, 8192> samples{};
    size_t done = 0;
    int result = MPG123_NEW_FORMAT;
    while (result == MPG123_NEW_FORMAT)
        result = mpg123_read(handle, samples.data(), samples.size(), &done);
    return (result == MPG123_OK || result == MPG123_DONE) && done > 0;
}

} // namespace

Mp3Facts checkMp3(const QByteArray& file) {
    Mp3Facts facts;
    mpg123_init();
    const std::unique_ptr<mpg123_handle, decltype(&mpg123_delete)> handle(mpg123_new(nullptr, nullptr),
                                                                          &mpg123_delete);
    if (!handle)
        return facts;
    Cursor cursor{&file};
    mpg123_param(handle.get(), MPG123_ADD_FLAGS, MPG123_QUIET, 0);
    mpg123_param(handle.get(), MPG123_RESYNC_LIMIT, kResyncLimit, 0);
    mpg123_replace_reader_handle(handle.get(), readFrom, seekIn, nullptr);
    int encoding = 0;
    mpg123_frameinfo info{};
    if (mpg123_open_handle(handle.get(), &cursor) != MPG123_OK ||
        mpg123_getformat(handle.get(), &facts.rate, &facts.channels, &encoding) != MPG123_OK ||
        mpg123_info(handle.get(), &info) != MPG123_OK || info.layer != 3 || !decodes(handle.get()))
        return {};
    facts.isMp3 = true;
    mpg123_scan(handle.get());
    const off_t samples = mpg123_length(handle.get());
    if (samples > 0 && facts.rate > 0)
        facts.length = std::chrono::milliseconds(samples * 1000 / facts.rate);
    return facts;
}

} // namespace sim
