#include "http/requestbody.h"

#include "http/urlencoded.h"

namespace {

constexpr Refusal TooLarge{413, "body over the limit"};

std::optional<Refusal> refusalFor(int status) {
    switch (status) {
    case 0:
        return std::nullopt;
    case 413:
        return TooLarge;
    case 507:
        return Refusal{507, "upload could not be written to disk"};
    default:
        return Refusal{400, "malformed multipart body"};
    }
}

/// File names of uploads are at most what a file system takes, with room for what encodings add.
constexpr int MaxFileName = 1024;

} // namespace

std::optional<Refusal> RequestBody::begin(const QByteArray& contentType, const BodyLength& length,
                                          const BodyLimits& limits) {
    m_limits = limits;
    const QByteArray type = contentType.split(';').first().trimmed().toLower();
    const bool isMultipart = type == "multipart/form-data";
    m_isForm = type == "application/x-www-form-urlencoded";
    if (!length.chunked && length.length > (isMultipart ? limits.multiPart : limits.request))
        return TooLarge;
    if (!isMultipart || !length.present())
        return std::nullopt;
    const QByteArray boundary = MultipartParser::boundaryOf(contentType);
    if (boundary.isEmpty())
        return Refusal{400, "multipart body without a boundary"};
    m_multipart = std::make_unique<MultipartParser>(boundary, static_cast<MultipartParser::Sink*>(this));
    return std::nullopt;
}

std::optional<Refusal> RequestBody::feed(const char* data, int size) {
    m_received += size;
    if (m_received > (m_multipart ? m_limits.multiPart : m_limits.request))
        return TooLarge;
    if (m_multipart)
        return refusalFor(m_multipart->feed(data, size));
    bytes.append(data, size);
    return std::nullopt;
}

std::optional<Refusal> RequestBody::finish() {
    if (m_multipart && !m_multipart->isComplete())
        return Refusal{400, "multipart body without its end"};
    if (m_isForm && !decodeForm(bytes, fields))
        return Refusal{400, "malformed form"};
    for (auto& upload : uploads)
        upload.second.file->seek(0);
    return std::nullopt;
}

int RequestBody::partBegins(const QByteArray& name, bool isFile, const QByteArray& fileName) {
    m_partName = name;
    m_partValue.clear();
    m_partFile = nullptr;
    if (!isFile || fileName.isEmpty())
        return 0;
    if (fileName.size() > MaxFileName)
        return 400;
    Upload& upload = uploads[name];
    upload.fileName = fileName;
    upload.file = std::make_unique<QTemporaryFile>();
    m_partFile = upload.file.get();
    return m_partFile->open() ? 0 : 507;
}

int RequestBody::partData(const char* data, int size) {
    if (m_partFile)
        return m_partFile->write(data, size) == size ? 0 : 507;
    m_inMemory += size;
    if (m_inMemory > m_limits.request)
        return 413;
    m_partValue.append(data, size);
    return 0;
}

int RequestBody::partEnds() {
    if (m_partFile)
        return m_partFile->flush() ? 0 : 507;
    fields.insert(m_partName, m_partValue);
    return 0;
}
