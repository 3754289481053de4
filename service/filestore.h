#pragma once

#include "core/fileaddress.h"

#include <memory>
#include <QString>
#include <QTemporaryDir>

class Call;
class QIODevice;
class sqlite;

/// Where uploaded files live below the working directory `runingdir`, and how they get there. The
/// document root is `runingdir`/etc/docroot; addresses are relative to it. One object for one
/// request; any thread.
class FileStore {
public:
    explicit FileStore(const sqlite& database);

    /// The name without the characters that addresses and lists can't carry (& blank | _ / * @ ! ^ %
    /// $ #), cut to 100 bytes of UTF-8 at a character boundary. May be empty.
    static QString cleanName(const QString& name);
    /// "mp3/<userid>/<hex of the cleaned name>.mp3"
    static QString audioUrl(int userid, const QString& cleanedName);
    /// A file size for people: "1.4 MB".
    static QString sizeText(qint64 bytes);
    static constexpr int MaxNameBytes = 100; // twice that in hex still fits a file name

    /// The beginnings of every path over HTTP under which uploads are found.
    static QList<QByteArray> uploadPaths();

    QString root() const { return m_root; }
    QString path(const QString& url) const { return m_root + QLatin1Char('/') + url; }
    QString playUrl(const QString& url) const { return fileAddress(m_preurl, url); }

    /// A directory of this request's own, on the document root's file system, removed with the
    /// object. Not valid when it could not be made.
    std::unique_ptr<QTemporaryDir> workDirectory() const;
    /// Copies the upload block by block into a file. False on any write error.
    static bool copyTo(QIODevice& source, const QString& target);
    /// Moves a finished file to its address, replacing what is there in one step.
    bool install(const QString& file, const QString& url) const;
    bool remove(const QString& url) const;

    /// Removes what requests left behind that a killed service could not finish.
    static void removeLeftovers(const QString& runingdir);

private:
    QString m_work;
    QString m_root;
    QString m_preurl;
};
