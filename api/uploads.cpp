#include "api/dumpcontroller_add_user.h"

#include "api/strictsql.h"
#include "http/httprequest.h"
#include "service/audio.h"
#include "service/filestore.h"

#include <QJsonObject>
#include <QRegularExpression>
#include <QUuid>

namespace {

constexpr int HeadBytes = 64;

QByteArray stored(const FileStore& store, const QString& url) {
    return success({{QStringLiteral("url"), url}, {QStringLiteral("playurl"), store.playUrl(url)}});
}

QByteArray failedStatement(const ShownResult& result) {
    return reply({{QStringLiteral("res"), false},
                  {QStringLiteral("info"), QStringLiteral("ER_EXE")},
                  {QStringLiteral("sqline"), result.sql}});
}

/// Puts the upload at an address in one step: a reader sees the old file or the new one.
bool place(const FileStore& store, QTemporaryFile& upload, const QString& url) {
    const auto work = store.workDirectory();
    const QString copy = work->filePath(QStringLiteral("upload"));
    return work->isValid() && upload.seek(0) && FileStore::copyTo(upload, copy) && store.install(copy, url);
}

QString pictureSuffixOf(QTemporaryFile& upload) {
    return audio::pictureSuffix(upload.peek(HeadBytes));
}

/// What a browser may be sent to from a picture: nothing, an http(s) address or a path. Without a scheme
/// there is no colon before the first slash.
bool isLink(const QString& text) {
    static const QRegularExpression link(QStringLiteral("\\A(?:https?://|[^:]*\\z|[^:/?#]*[/?#])"),
                                         QRegularExpression::CaseInsensitiveOption);
    return isOneLine(text) && link.match(text).hasMatch();
}

/// A name that can stand in a directory: not empty, and no dots in front.
QString sharedName(const QString& name) {
    QString cleaned = FileStore::cleanName(name);
    while (cleaned.startsWith(QLatin1Char('.')))
        cleaned.remove(0, 1);
    return cleaned.isEmpty() ? QStringLiteral("file") : cleaned;
}

} // namespace

QByteArray DumpController_add_user::storePicture(const Call& call, const QString& url) {
    if (pictureSuffixOf(*call.file()).isEmpty())
        return refusal(QStringLiteral("Decode_error"));
    const FileStore store(db());
    return place(store, *call.file(), url) ? stored(store, url) : refusal(QStringLiteral("exc_error_ext"));
}

QByteArray DumpController_add_user::user_reg_filetx(const Call& call) {
    return storePicture(call, QStringLiteral("static/u1.jpg"));
}

QByteArray DumpController_add_user::user_reg_filelg(const Call& call) {
    return storePicture(call, QStringLiteral("static/logo.png"));
}

QByteArray DumpController_add_user::user_reg_fileallk(const Call& call) {
    const QString name = sharedName(call.fileName());
    const FileStore store(db());
    const QString url = QStringLiteral("ksfile/%1/%2").arg(call.userid()).arg(name);
    const SqlArgs args{{QStringLiteral("@userid"), call.userid()},
                       {QStringLiteral("@path"), url},
                       {QStringLiteral("@filename"), name}};
    const ShownResult known = db().run(
        QStringLiteral("SELECT `id` FROM `sharefiles` WHERE (`userid` = '@userid' and `path` = '@path')"),
        args);
    if (!known.ok)
        return failedStatement(known);
    if (!place(store, *call.file(), url))
        return refusal(QStringLiteral("exc_error_ext"));
    if (!known.isEmpty())
        return stored(store, url);
    const ShownResult added =
        db().run(QStringLiteral("INSERT INTO  `sharefiles` (`userid`, `path`, `uname`) VALUES "
                                "('@userid', '@path', '@filename');"),
                 args);
    return added.ok ? stored(store, url) : failedStatement(added);
}

QByteArray DumpController_add_user::swapupload(const Call& call) {
    if (!isLink(call.text("to")))
        return refusal(QStringLiteral("Parusersss"));
    const QString suffix = pictureSuffixOf(*call.file());
    if (suffix.isEmpty())
        return refusal(QStringLiteral("Decode_error"));
    const FileStore store(db());
    const QString url =
        QStringLiteral("static/swap_%1.%2").arg(QUuid::createUuid().toString(QUuid::Id128), suffix);
    if (!place(store, *call.file(), url) || !place(store, *call.file(), QStringLiteral("tmp.jpg")))
        return refusal(QStringLiteral("exc_error_ext"));
    const ShownResult added =
        db().run(QStringLiteral("INSERT INTO  `swap_info` (`url`, `title`, `type`, `to`) VALUES "
                                "('@url', '@title', '@type', '@to');"),
                 {{QStringLiteral("@url"), url},
                  {QStringLiteral("@title"), call.text("lunbotext")},
                  {QStringLiteral("@type"), call.text("type")},
                  {QStringLiteral("@to"), call.text("to")}});
    if (added.ok)
        return stored(store, url);
    store.remove(url);
    return failedStatement(added);
}
