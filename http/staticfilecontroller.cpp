#include "http/staticfilecontroller.h"

#include "http/filerange.h"
#include "http/httpdate.h"
#include "http/httprequest.h"
#include "http/httpresponse.h"
#include "http/mimetypes.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <fcntl.h>
#include <linux/openat2.h>
#include <QDebug>
#include <QFile>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

/// Whether a path may be looked up at all: no step upwards, nothing hidden but a sound without a name.
bool isServable(const QByteArray& path) {
    const bool isNameless = path.startsWith("/mp3/") && path.endsWith("/.mp3");
    return !(isNameless ? path.chopped(int(sizeof "/.mp3") - 1) : path).contains("/.");
}

/// The path as the system resolves it: slashes that repeat count as one.
QByteArray singleSlashes(const QByteArray& path) {
    QByteArray single;
    single.reserve(path.size());
    for (const char c : path) {
        if (c != '/' || !single.endsWith('/'))
            single.append(c);
    }
    return single;
}

bool isDirectory(int descriptor) {
    struct stat info {};
    return ::fstat(descriptor, &info) == 0 && S_ISDIR(info.st_mode);
}

FileQuery queryOf(const HttpRequest& request) {
    FileQuery query;
    query.ifNoneMatch = request.getHeader("If-None-Match");
    query.ifModifiedSince = request.getHeader("If-Modified-Since");
    if (request.getMethod() == "GET") {
        query.range = request.getHeader("Range");
        query.ifRange = request.getHeader("If-Range");
    }
    return query;
}

FileVersion versionOf(const struct stat& info) {
    const auto modified = static_cast<quint64>(info.st_mtim.tv_sec) * 1'000'000'000U +
                          static_cast<quint64>(info.st_mtim.tv_nsec);
    const QByteArray etag = '"' + QByteArray::number(modified, 16) + '-' +
                            QByteArray::number(static_cast<qint64>(info.st_size), 16) + '"';
    return {info.st_size, etag, info.st_mtim.tv_sec};
}

void fail(HttpResponse& response, int status, const char* text) {
    response.setStatus(status);
    response.setHeader("Content-Type", "text/plain");
    response.write(text, true);
}

void failToOpen(HttpResponse& response, int error) {
    if (error == EMFILE || error == ENFILE) {
        response.setHeader("Retry-After", 1);
        fail(response, 503, "503 too many open files\n");
    } else if (error == EACCES || error == EPERM || error == EXDEV || error == ELOOP) {
        fail(response, 403, "403 forbidden\n");
    } else {
        fail(response, 404, "404 not found\n");
    }
}

} // namespace

StaticFileController::StaticFileController(const DocrootSettings& settings, QObject* parent)
    : HttpRequestHandler(parent)
    , m_path(settings.path)
    , m_encoding(settings.encoding)
    , m_maxAgeSeconds(settings.maxAgeSeconds) {
    const int root = openRoot();
    const int probe = root < 0 ? -1 : openBelow(root, QByteArrayLiteral("."));
    if (probe < 0) {
        qWarning("StaticFileController: document root %s can't be opened: %s", m_path.constData(),
                 strerror(errno));
        return;
    }
    ::close(probe);
    qDebug("StaticFileController: docroot=%s, encoding=%s, maxAge=%d s", m_path.constData(),
           m_encoding.constData(), m_maxAgeSeconds);
}

StaticFileController::~StaticFileController() {
    if (m_root >= 0)
        ::close(m_root);
}

void StaticFileController::service(HttpRequest& request, HttpResponse& response) {
    response.setHeader("X-Content-Type-Options", "nosniff");
    const QByteArray method = request.getMethod();
    if (method != "GET" && method != "HEAD" && method != "POST") {
        response.setHeader("Allow", "GET, HEAD, POST");
        return fail(response, 405, "405 method not allowed\n");
    }
    const QByteArray path = request.getPath();
    if (!isServable(path))
        return fail(response, 403, "403 forbidden\n");
    if (isUpload(path))
        response.setHeader("Content-Security-Policy", "sandbox");
    int descriptor = openFile(path);
    QByteArray name = path;
    if (descriptor >= 0 && isDirectory(descriptor)) {
        name = QByteArrayLiteral("index.html");
        const int directory = std::exchange(descriptor, -1);
        descriptor = openBelow(directory, name);
        const int error = errno;
        ::close(directory);
        errno = error;
    }
    if (descriptor < 0)
        return failToOpen(response, errno);
    descriptor = packedInstead(descriptor, path, request, response);
    sendFile(descriptor, name, request, response);
}

// Only what a page consists of: nobody packs sounds, and their players unpack nothing.
int StaticFileController::packedInstead(int plain, const QByteArray& path, const HttpRequest& request,
                                        HttpResponse& response) {
    if (!path.endsWith(".js") && !path.endsWith(".css"))
        return plain;
    const int packed = openFile(path + ".gz");
    if (packed < 0)
        return plain;
    response.setHeader("Vary", "Accept-Encoding");
    const QByteArray accepted = request.getHeader("Accept-Encoding").toLower().replace(" ", "");
    if (!accepted.contains("gzip") || accepted.contains("gzip;q=0")) {
        ::close(packed);
        return plain;
    }
    ::close(plain);
    response.setHeader("Content-Encoding", "gzip");
    return packed;
}

bool StaticFileController::isUpload(const QByteArray& path) const {
    const QByteArray resolved = singleSlashes(path);
    return std::any_of(m_uploads.begin(), m_uploads.end(),
                       [&](const QByteArray& prefix) { return resolved.startsWith(prefix); });
}

int StaticFileController::openRoot() {
    int root = m_root;
    if (root >= 0)
        return root;
    int opened = ::open(m_path.constData(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (opened >= 0 && !m_root.compare_exchange_strong(root, opened)) {
        ::close(opened); // another thread was faster
        opened = root;
    }
    return opened;
}

int StaticFileController::openFile(const QByteArray& path) {
    const int root = openRoot();
    if (root < 0)
        return -1;
    int skip = 0;
    while (skip < path.size() && path.at(skip) == '/')
        ++skip;
    return openBelow(root, skip == path.size() ? QByteArrayLiteral(".") : path.mid(skip));
}

int StaticFileController::openBelow(int directory, const QByteArray& name) {
    open_how how{};
    how.flags = O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY;
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS;
    // A rename elsewhere in the root may disturb the kernel's check; it then asks to try again.
    constexpr int attempts = 4;
    long descriptor = -1;
    for (int i = 0; i < attempts; ++i) {
        descriptor = ::syscall(SYS_openat2, directory, name.constData(), &how, sizeof how);
        if (descriptor >= 0 || errno != EAGAIN)
            break;
    }
    return static_cast<int>(descriptor);
}

void StaticFileController::sendFile(int descriptor, const QByteArray& name, const HttpRequest& request,
                                    HttpResponse& response) {
    struct stat info {};
    if (::fstat(descriptor, &info) != 0 || !S_ISREG(info.st_mode)) {
        ::close(descriptor);
        return fail(response, 404, "404 not found\n");
    }
    FileVersion version = versionOf(info);
    Mp3Cut cut;
    if (const QByteArray from = request.getParameter("from");
        !from.isEmpty() && !cutFile(descriptor, from, version, cut, response)) {
        ::close(descriptor);
        return;
    }
    const FilePart part = choosePart(queryOf(request), version);
    response.setStatus(part.status);
    response.setHeader("Accept-Ranges", "bytes");
    response.setHeader("ETag", version.etag);
    response.setHeader("Last-Modified", httpDate(version.modified));
    response.setHeader("Cache-Control", "max-age=" + QByteArray::number(m_maxAgeSeconds));
    const QByteArray size = QByteArray::number(version.size);
    if (part.status == 416)
        response.setHeader("Content-Range", "bytes */" + size);
    if (part.status == 206)
        response.setHeader("Content-Range", "bytes " + QByteArray::number(part.offset) + '-' +
                                                QByteArray::number(part.offset + part.length - 1) + '/' +
                                                size);
    if (part.status == 200 || part.status == 206)
        response.setHeader("Content-Type", mimeType(name, m_encoding));
    // The part of the whole that the head is, and that the file is.
    const qint64 headBytes = cut.head.size();
    const QByteArray head =
        part.length > 0 && part.offset < headBytes
            ? cut.head.mid(int(part.offset), int(std::min<qint64>(part.length, headBytes)))
            : QByteArray();
    const qint64 offset = cut.offset + std::max<qint64>(part.offset - headBytes, 0);
    response.setFile(descriptor, offset, part.length - head.size(), head);
}

/// Makes `version` that of the file from a moment on. False when the answer has been given.
bool StaticFileController::cutFile(int descriptor, const QByteArray& from, FileVersion& version, Mp3Cut& cut,
                                   HttpResponse& response) {
    constexpr double Longest = 1e7; // seconds
    bool isNumber = false;
    const double seconds = from.toDouble(&isNumber);
    if (!isNumber || !(seconds >= 0 && seconds <= Longest)) {
        fail(response, 400, "400 \"from\" is no number of seconds\n");
        return false;
    }
    const std::chrono::milliseconds moment(std::llround(seconds * 1000));
    switch (m_cuts.cut(descriptor, version.size, version.etag, moment, cut)) {
    case Mp3Cuts::Outcome::BeyondEnd:
        fail(response, 416, "416 the file ends before \"from\"\n");
        return false;
    case Mp3Cuts::Outcome::NoMp3:
        break;
    case Mp3Cuts::Outcome::Done:
        version.etag.insert(version.etag.size() - 1, '-' + QByteArray::number(cut.offset, 16));
        version.size += cut.head.size() - cut.offset;
        break;
    }
    return true;
}
