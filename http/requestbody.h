#pragma once

#include "http/multipartparser.h"
#include "http/requesthead.h"

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <QByteArray>
#include <QMap>
#include <QTemporaryFile>

/// Bytes that one request may make the service hold.
struct BodyLimits {
    qint64 request = 0;   ///< body in memory; of a multipart body, all its fields that are not files
    qint64 multiPart = 0; ///< a whole multipart body, whose files go to disk
};

/// What all requests together make the service hold: each is within its own limits, but there may be
/// thousands at once. Thread-safe.
struct BodyBudget {
    static constexpr qint64 MaxMemory = 256'000'000; ///< bytes of bodies: a small machine can spare them
    std::atomic<qint64> memory{0};

    /// Files that are being received. Strangers' have a share of their own, so that they take nothing
    /// from users whose token came before the file.
    struct Files {
        static constexpr int MaxCount = 32;
        static constexpr qint64 MaxBytes = 1024 * 1024 * 1024; ///< on disk: eight of the longest
        std::atomic<int> count{0};
        std::atomic<qint64> bytes{0};
    };
    Files ofUsers;
    Files ofStrangers;
};

/// What becomes of a file within a request.
enum class FileFate {
    Ignored,      ///< as if it were not there
    Refused,      ///< it is there, but its bytes are thrown away: the request will be refused
    FromStranger, ///< received before anybody knows whose it is
    FromUser,
};

/// The place that one file takes of the budget, for as long as it lives.
class FilePlace {
public:
    explicit FilePlace(BodyBudget::Files& files);
    ~FilePlace();
    FilePlace(const FilePlace&) = delete;
    FilePlace& operator=(const FilePlace&) = delete;
    bool isGranted() const { return m_isGranted; }
    bool grow(qint64 bytes); ///< false past the limit

private:
    BodyBudget::Files& m_files;
    qint64 m_bytes = 0;
    bool m_isGranted;
};

/// Takes a request's body as it arrives. Engine thread.
class RequestBody final : private MultipartParser::Sink {
public:
    RequestBody() = default;
    ~RequestBody();
    RequestBody(const RequestBody&) = delete;
    RequestBody& operator=(const RequestBody&) = delete;

    struct Upload {
        QByteArray fileName;
        std::unique_ptr<FilePlace> place;
        std::unique_ptr<QTemporaryFile> file; ///< not open when its bytes are thrown away
    };
    /// Says what becomes of the file in the part of that name; asked when the part begins.
    using FileJudge = std::function<FileFate(const QByteArray& field)>;

    /// Refused when the announced length is over the limit or the multipart type has no boundary.
    /// What it takes of `budget` is given back by the destructor.
    struct Announced {
        QByteArray contentType;
        BodyLength length;
        bool isFile = false; ///< unless it is multipart it is kept as the upload "file"
    };
    std::optional<Refusal> begin(const Announced& announced, const BodyLimits& limits, BodyBudget* budget,
                                 FileJudge judge);
    std::optional<Refusal> feed(const char* data, int size);
    /// The body is whole: refused when its form is malformed or cut short.
    std::optional<Refusal> finish();

    // What was in it.
    QByteArray bytes; ///< whole body unless it was multipart or a file
    QMap<QByteArray, QByteArray> fields;
    std::map<QByteArray, Upload> uploads;

private:
    int partBegins(const QByteArray& name, bool isFile, const QByteArray& fileName) override;
    int fileBegins(const QByteArray& fileName);
    int partData(const char* data, int size) override;
    int partEnds() override;

    /// Takes memory for so many more bytes: 0, 413 over the request's limit or 503 over everybody's.
    int take(int size);
    std::optional<Refusal> beginFile();
    std::optional<Refusal> takeFile(const char* data, int size);

    BodyLimits m_limits;
    BodyBudget* m_budget = nullptr;
    qint64 m_received = 0;
    qint64 m_inMemory = 0;
    bool m_isForm = false;
    bool m_isFile = false;
    std::unique_ptr<MultipartParser> m_multipart;
    QByteArray m_partName;
    QByteArray m_partValue;
    FileJudge m_judge;
    Upload* m_partFile = nullptr; ///< of the part that is being received, while its bytes are kept
    bool m_isPartKept = true;
};
