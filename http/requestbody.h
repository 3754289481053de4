#pragma once

#include "http/multipartparser.h"
#include "http/requesthead.h"

#include <memory>
#include <QByteArray>
#include <QMap>
#include <QTemporaryFile>

/// Bytes that one request may make the service hold.
struct BodyLimits {
    qint64 request = 0;   ///< body in memory; of a multipart body, all its fields that are not files
    qint64 multiPart = 0; ///< a whole multipart body, whose files go to disk
};

/// Takes a request's body as it arrives. Engine thread.
class RequestBody : private MultipartParser::Sink {
public:
    struct Upload {
        QByteArray fileName;
        std::unique_ptr<QTemporaryFile> file;
    };

    /// Refused when the announced length is over the limit or the multipart type has no boundary.
    std::optional<Refusal> begin(const QByteArray& contentType, const BodyLength& length,
                                 const BodyLimits& limits);
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

    BodyLimits m_limits;
    qint64 m_received = 0;
    qint64 m_inMemory = 0;
    bool m_isForm = false;
    std::unique_ptr<MultipartParser> m_multipart;
    QByteArray m_partName;
    QByteArray m_partValue;
    QTemporaryFile* m_partFile = nullptr;
};
