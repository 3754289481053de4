#include "http/headedfile.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <microhttpd.h>
#include <unistd.h>

namespace {

/// What the library reads at once.
constexpr std::size_t BlockBytes = 64 * 1024;

struct HeadedFile {
    QByteArray head;
    int descriptor;
    qint64 offset;
};

void closeFile(void* handle) {
    const std::unique_ptr<HeadedFile> file(static_cast<HeadedFile*>(handle));
    ::close(file->descriptor);
}

ssize_t readFile(void* handle, std::uint64_t position, char* buffer, std::size_t most) {
    const auto& file = *static_cast<HeadedFile*>(handle);
    const auto head = static_cast<std::uint64_t>(file.head.size());
    if (position < head) {
        const auto bytes = std::min<std::uint64_t>(head - position, most);
        std::memcpy(buffer, file.head.constData() + position, bytes);
        return static_cast<ssize_t>(bytes);
    }
    ssize_t got = 0;
    do
        got = ::pread(file.descriptor, buffer, most, file.offset + static_cast<qint64>(position - head));
    while (got < 0 && errno == EINTR);
    return got > 0 ? got : MHD_CONTENT_READER_END_WITH_ERROR; // it has become shorter
}

} // namespace

MHD_Response* headedFileResponse(const QByteArray& head, int descriptor, qint64 offset, qint64 length) {
    auto file = std::make_unique<HeadedFile>(HeadedFile{head, descriptor, offset});
    MHD_Response* const response = MHD_create_response_from_callback(
        static_cast<std::uint64_t>(head.size() + length), BlockBytes, &readFile, file.get(), &closeFile);
    if (response)
        file.release(); // NOLINT(bugprone-unused-return-value): the response frees it
    return response;
}
