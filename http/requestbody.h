#pragma once

#include "http/multipartparser.h"
#include "http/requesthead.h"

#include <atomic>
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
    static constexpr int MaxUploads = 64;            ///< at once, as each may fill `multiPart` bytes of disk
    std::atomic<qint64> memory{0};
    std::atomic<int> uploads{0};
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
        std::unique_ptr<QTemporaryFile> file;
    };

    /// Refused when the announced length is over the limit or the multipart type has no boundary.
    /// What it takes of `budget` is given back by the destructor.
    std::optional<Refusal> begin(const QByteArray& contentType, const BodyLength& length,
                                 const BodyLimits& limits, BodyBudget* budget);
    std::optional<Refusal> feed(const char* data, int size);
    /// The body is whole: refused when its form is malformed or cut short.
    std::optional<Refusal> finish();

    // What was in it.
    QByteArray bytes; ///< whole body unless it was multipart
    QMap<QByteArray, QByteArray> fields;
    std::map<QByteArray, Upload> uploads;

private:
    int partBegins(const QByteArray& name, bool isFile, const QByteArray& fileName) override;
    int partData(const char* data, int size) override;
    int partEnds() override;

    /// Takes memory for so many more bytes: 0, 413 over the request's limit or 503 over everybody's.
    int take(int size);

    BodyLimits m_limits;
    BodyBudget* m_budget = nullptr;
    qint64 m_received = 0;
    qint64 m_inMemory = 0;
    bool m_isForm = false;
    std::unique_ptr<MultipartParser> m_multipart;
    QByteArray m_partName;
    QByteArray m_partValue;
    QTemporaryFile* m_partFile = nullptr;
};
