#include "service/filestore.h"

#include "core/sql/sqlite.h"

#include <cstdio>
#include <QDebug>
#include <QDir>
#include <QFileInfo>
#include <QLocale>

namespace {

constexpr qint64 CopyBlock = 256 * 1024;

const QString& workFolder() {
    static const QString folder = QStringLiteral("/etc/upload");
    return folder;
}

} // namespace

FileStore::FileStore(const sqlite& database)
    : m_work(database.site.runingdir + workFolder())
    , m_root(QDir::cleanPath(database.site.runingdir + QStringLiteral("/etc/docroot")))
    , m_preurl(database.site.preurl) {}

QString FileStore::cleanName(const QString& name) {
    static const QString removed = QStringLiteral("& |_/*@!^%$#");
    QString kept;
    int bytes = 0;
    for (int i = 0; i < name.size();) {
        const int units = name.at(i).isHighSurrogate() && i + 1 < name.size() ? 2 : 1;
        const QString character = name.mid(i, units);
        i += units;
        if (removed.contains(character) || character == QChar(QChar::Null))
            continue;
        bytes += character.toUtf8().size();
        if (bytes > MaxNameBytes)
            break;
        kept += character;
    }
    return kept;
}

QString FileStore::audioUrl(int userid, const QString& cleanedName) {
    return QStringLiteral("mp3/%1/%2.mp3").arg(userid).arg(QString::fromLatin1(cleanedName.toUtf8().toHex()));
}

QString FileStore::sizeText(qint64 bytes) {
    return QLocale::c().formattedDataSize(bytes, 1, QLocale::DataSizeTraditionalFormat);
}

QList<QByteArray> FileStore::uploadPaths() {
    return {"/ksfile/", "/mp3/", "/static/logo.png", "/static/swap_", "/static/u1.jpg", "/tmp.jpg"};
}

std::unique_ptr<QTemporaryDir> FileStore::workDirectory() const {
    if (!QDir().mkpath(m_work))
        qWarning().noquote() << "no directory for uploads:" << m_work;
    return std::make_unique<QTemporaryDir>(m_work + QStringLiteral("/up-XXXXXX"));
}

bool FileStore::copyTo(QIODevice& source, const QString& target) {
    QFile file(target);
    if (!file.open(QIODevice::WriteOnly))
        return false;
    QByteArray block;
    while (!(block = source.read(CopyBlock)).isEmpty())
        if (file.write(block) != block.size())
            return false;
    return file.flush();
}

bool FileStore::install(const QString& file, const QString& url) const {
    const QString target = path(url);
    QFile::setPermissions(file, QFile::permissions(file) | QFile::ReadGroup | QFile::ReadOther);
    const bool moved =
        QDir().mkpath(QFileInfo(target).path()) &&
        std::rename(QFile::encodeName(file).constData(), QFile::encodeName(target).constData()) == 0;
    if (!moved)
        qWarning().noquote() << "file not stored:" << target << qt_error_string();
    return moved;
}

bool FileStore::remove(const QString& url) const {
    const QString target = QDir::cleanPath(path(url));
    if (!target.startsWith(m_root + QLatin1Char('/')))
        return false;
    return !QFile::exists(target) || QFile::remove(target);
}

void FileStore::removeLeftovers(const QString& runingdir) {
    QDir(runingdir + workFolder()).removeRecursively();
}
