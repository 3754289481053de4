#include "http/requestbody.h"

#include "http/urlencoded.h"

namespace {

constexpr Refusal TooLarge{413, "body over the limit"};
constexpr Refusal TooMuchAtOnce{503, "too much is being sent at once"};

std::optional<Refusal> refusalFor(int status) {
    switch (status) {
    case 0:
        return std::nullopt;
    case 413:
        return TooLarge;
    case 503:
        return TooMuchAtOnce;
    case 507:
        return Refusal{507, "upload could not be written to disk"};
    default:
        return Refusal{400, "malformed multipart body"};
    }
}

/// File names of uploads are at most what a file system takes, with room for what encodings add. The
/// rest is cut, at the end of a character of UTF-8.
constexpr int MaxFileName = 1024;

QByteArray shortened(const QByteArray& fileName) {
    int size = std::min(fileName.size(), MaxFileName);
    while (size > 0 && size < fileName.size() && (fileName.at(size) & 0xC0) == 0x80)
        --size;
    return fileName.left(size);
}

} // namespace

FilePlace::FilePlace(BodyBudget::Files& files)
    : m_files(files)
    , m_isGranted(++files.count <= BodyBudget::Files::MaxCount) {}

FilePlace::~FilePlace() {
    --m_files.count;
    m_files.bytes -= m_bytes;
}

bool FilePlace::grow(qint64 bytes) {
    m_bytes += bytes;
    return (m_files.bytes += bytes) <= BodyBudget::Files::MaxBytes;
}

RequestBody::~RequestBody() {
    if (m_budget)
        m_budget->memory -= m_inMemory;
}

std::optional<Refusal> RequestBody::begin(const Announced& announced, const BodyLimits& limits,
                                          BodyBudget* budget, FileJudge judge) {
    m_limits = limits;
    m_budget = budget;
    m_judge = std::move(judge);
    const BodyLength& length = announced.length;
    const QByteArray type = announced.contentType.split(';').first().trimmed().toLower();
    const bool isMultipart = type == "multipart/form-data";
    m_isFile = announced.isFile && !isMultipart && length.present();
    m_isForm = !m_isFile && type == "application/x-www-form-urlencoded";
    if (!length.chunked && length.length > (isMultipart || m_isFile ? limits.multiPart : limits.request))
        return TooLarge;
    if (m_isFile)
        return beginFile();
    if (!isMultipart || !length.present())
        return std::nullopt;
    const QByteArray boundary = MultipartParser::boundaryOf(announced.contentType);
    if (boundary.isEmpty())
        return Refusal{400, "multipart body without a boundary"};
    m_multipart = std::make_unique<MultipartParser>(boundary, static_cast<MultipartParser::Sink*>(this));
    return std::nullopt;
}

std::optional<Refusal> RequestBody::beginFile() {
    m_partName = QByteArrayLiteral("file");
    return refusalFor(fileBegins({}));
}

std::optional<Refusal> RequestBody::takeFile(const char* data, int size) {
    return m_received > m_limits.multiPart ? std::optional(TooLarge) : refusalFor(partData(data, size));
}

std::optional<Refusal> RequestBody::feed(const char* data, int size) {
    m_received += size;
    if (m_isFile)
        return takeFile(data, size);
    if (m_multipart)
        return m_received > m_limits.multiPart ? std::optional(TooLarge)
                                               : refusalFor(m_multipart->feed(data, size));
    const int status = take(size);
    if (status == 0)
        bytes.append(data, size);
    return refusalFor(status);
}

int RequestBody::take(int size) {
    m_inMemory += size;
    m_budget->memory += size;
    if (m_inMemory > m_limits.request)
        return 413;
    return m_budget->memory > BodyBudget::MaxMemory ? 503 : 0;
}

std::optional<Refusal> RequestBody::finish() {
    if (m_multipart && !m_multipart->isComplete())
        return Refusal{400, "multipart body without its end"};
    if (m_isForm && !decodeForm(bytes, fields))
        return Refusal{400, "malformed form"};
    if (m_isFile && m_partFile && !m_partFile->file->flush())
        return refusalFor(507);
    for (auto& upload : uploads) {
        if (upload.second.file->isOpen())
            upload.second.file->seek(0);
    }
    return std::nullopt;
}

int RequestBody::partBegins(const QByteArray& name, bool isFile, const QByteArray& fileName) {
    m_partName = name;
    m_partValue.clear();
    m_partFile = nullptr;
    m_isPartKept = true;
    if (!isFile || fileName.isEmpty())
        return 0;
    return fileBegins(shortened(fileName));
}

int RequestBody::fileBegins(const QByteArray& fileName) {
    m_isPartKept = false;
    const FileFate fate = m_judge(m_partName);
    if (fate == FileFate::Ignored)
        return 0;
    Upload& upload = uploads[m_partName];
    upload = {shortened(fileName), nullptr, std::make_unique<QTemporaryFile>()};
    if (fate == FileFate::Refused)
        return 0;
    auto& files = fate == FileFate::FromUser ? m_budget->ofUsers : m_budget->ofStrangers;
    upload.place = std::make_unique<FilePlace>(files);
    if (!upload.place->isGranted())
        return 503;
    m_partFile = &upload;
    return upload.file->open() ? 0 : 507;
}

int RequestBody::partData(const char* data, int size) {
    if (m_partFile) {
        if (!m_partFile->place->grow(size))
            return 503;
        return m_partFile->file->write(data, size) == size ? 0 : 507;
    }
    if (!m_isPartKept)
        return 0;
    const int status = take(size);
    if (status == 0)
        m_partValue.append(data, size);
    return status;
}

int RequestBody::partEnds() {
    if (m_partFile)
        return m_partFile->file->flush() ? 0 : 507;
    if (m_isPartKept)
        fields.insert(m_partName, m_partValue);
    return 0;
}
