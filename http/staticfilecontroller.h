#pragma once

#include "http/httprequesthandler.h"
#include "http/httpsettings.h"
#include "http/mp3cuts.h"

#include <atomic>
#include <QByteArray>
#include <QList>

struct FileQuery;
struct FileVersion;

/// Serves the files below the document root, straight from their descriptors. Files are opened beneath
/// the root by the kernel's own check, so neither ".." nor a symbolic link leads out of it; a name
/// that begins with a dot is never served. GET, HEAD and POST get the file, other methods 405. With `from`
/// (seconds) in the query an MP3 file is given from there on, see Mp3Cuts.
/// service() runs on any thread, several at once.
class StaticFileController : public HttpRequestHandler {
    Q_OBJECT
public:
    explicit StaticFileController(const DocrootSettings& settings, QObject* parent = nullptr);
    ~StaticFileController() override;

    void service(HttpRequest& request, HttpResponse& response) override;
    QByteArray root() const { return m_path; }
    /// Where the files of strangers lie: a browser runs nothing of them ("Content-Security-Policy:
    /// sandbox"). Each prefix begins with a slash. Before the first request.
    void setUploads(const QList<QByteArray>& prefixes) { m_uploads = prefixes; }

private:
    bool isUpload(const QByteArray& path) const;
    int openRoot();
    int openFile(const QByteArray& path);
    int packedInstead(int plain, const QByteArray& path, const HttpRequest& request, HttpResponse& response);
    int openBelow(int directory, const QByteArray& name);
    void sendFile(int descriptor, const QByteArray& name, const HttpRequest& request, HttpResponse& response);
    bool cutFile(int descriptor, const QByteArray& from, FileVersion& version, Mp3Cut& cut,
                 HttpResponse& response);

    QByteArray m_path;
    QByteArray m_encoding;
    QList<QByteArray> m_uploads;
    int m_maxAgeSeconds;
    std::atomic<int> m_root{-1}; ///< opened at first use, so that it may be made after the start
    Mp3Cuts m_cuts;
};
