// Alarm files, and the MP3 files from which they are made. The first byte chooses which.
#include "core/mp3frames.h"
#include "tasks/alarms/mgfile.h"
#include "tools/mgpackager.h"

#include <cstdint>
#include <cstdlib>

namespace {

void require(bool holds) {
    if (!holds)
        std::abort();
}

void alarmFile(const QByteArray& file) {
    const auto header = mg::parseHeader(file);
    require(header.has_value() == (file.size() >= mg::HeaderBytes));
    if (header) {
        const mg::Extent extent = mg::extent(*header, file.size());
        require(extent.dataBytes >= 0 && mg::HeaderBytes + extent.dataBytes <= file.size());
        require(extent.tableEntries == 0 ||
                extent.tableOffset + qint64{extent.tableEntries} * 2 <= file.size());
    }
    const auto unpacked = mgpackager::unpack(file);
    require(unpacked.bytes.isEmpty() || file.contains(unpacked.bytes));
}

void mp3File(const QByteArray& file) {
    QByteArray sound;
    for (const mp3::Frame& frame : mp3::frames(file)) {
        require(frame.bytes > 0 && frame.offset + frame.bytes <= file.size() && frame.sampleRate > 0);
        sound += file.mid(frame.offset, frame.bytes);
    }
    const auto packed = mgpackager::pack(file, 100);
    require(packed.bytes.isEmpty() || mgpackager::unpack(packed.bytes).bytes == sound);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 1)
        return 0;
    const QByteArray bytes(reinterpret_cast<const char*>(data + 1), static_cast<int>(size - 1));
    if (data[0] % 2 == 0)
        alarmFile(bytes);
    else
        mp3File(bytes);
    return 0;
}
