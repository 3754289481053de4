#include "api/dumpcontroller_add_user.h"
#include "api/requestmapper.h"

#include "api/strictsql.h"
#include "device/severinit.h"
#include "http/httprequest.h"
#include "service/audio.h"
#include "service/filestore.h"
#include "service/sounds.h"

#include <QDir>
#include <QJsonArray>
#include <QJsonObject>

namespace {

const char* const Important =
    "You should Save back info in Your database for use  it later Playhttpaddr [url] "
    "and Length of file [len]";

QJsonObject storedReply(const StoredAudio& stored, const FileStore& store) {
    return {{QStringLiteral("res"), true},
            {QStringLiteral("info"), QStringLiteral("SUC")},
            {QStringLiteral("url"), stored.url},
            {QStringLiteral("playurl"), store.playUrl(stored.url)},
            {QStringLiteral("fileid"), stored.id},
            {QStringLiteral("len"), stored.measure.seconds},
            {QStringLiteral("filesize"), stored.measure.bytes},
            {QStringLiteral("important"), QString::fromLatin1(Important)}};
}

/// A `userfile` row as the lists show it.
QJsonObject listedFile(const SqlResult& rows, int row, const QString& urlPrefix) {
    QJsonObject file = rows.object(row);
    const QString base64 = rows.text(row, "filename");
    file.insert(QStringLiteral("filenamebase64"), base64);
    file.insert(QStringLiteral("filename"), QString::fromUtf8(QByteArray::fromBase64(base64.toLatin1())));
    file.insert(QStringLiteral("playurl"), fileAddress(urlPrefix, rows.text(row, "url")));
    file.insert(QStringLiteral("sizeStr"), FileStore::sizeText(rows.value(row, "sizeByte").toLongLong()));
    return file;
}

QByteArray listReply(const StrictSql& database, int userid, const QString& urlPrefix) {
    const SqlResult rows =
        database.run(QStringLiteral("SELECT  *  FROM   `userfile`   where userid = '@userid'"),
                     {{QStringLiteral("@userid"), userid}});
    if (!rows.ok)
        return refusal(QStringLiteral("ER_EXE"));
    QJsonArray files;
    for (int row = 0; row < rows.rows.size(); ++row)
        files.append(listedFile(rows, row, urlPrefix));
    return success({{QStringLiteral("userid"), userid}, {QStringLiteral("filelist"), files}});
}

/// The MP3 files of one folder below the document root, without any database. Of the hidden ones only
/// ".mp3", a sound without a name, is served.
void listFolder(const FileStore& store, const QString& folder, QJsonArray& files) {
    const QDir directory(store.path(folder));
    const QStringList sounds{QStringLiteral("[!.]*.mp3"), QStringLiteral(".mp3")};
    for (const QFileInfo& info : directory.entryInfoList(sounds, QDir::Files | QDir::Hidden, QDir::Name)) {
        const QByteArray hex = info.completeBaseName().toLatin1();
        const QByteArray decoded = QByteArray::fromHex(hex);
        const QString name = decoded.toHex() == hex ? QString::fromUtf8(decoded) : info.completeBaseName();
        const QString url = folder + QLatin1Char('/') + info.fileName();
        files.append(
            QJsonObject{{QStringLiteral("filename"), name},
                        {QStringLiteral("filenamebase64"), QString::fromLatin1(name.toUtf8().toBase64())},
                        {QStringLiteral("url"), url},
                        {QStringLiteral("playurl"), store.playUrl(url)},
                        {QStringLiteral("len"), audio::quickLength(info.filePath())},
                        {QStringLiteral("sizeByte"), info.size()},
                        {QStringLiteral("sizeStr"), FileStore::sizeText(info.size())},
                        {QStringLiteral("ziuse"), 1},
                        {QStringLiteral("mark"), QString()},
                        {QStringLiteral("markid"), 0}});
    }
}

} // namespace

QByteArray storeRefusal(const StoreResult& result) {
    const char* word = "ER_EXE";
    if (result.fault == StoreFault::Undecodable)
        word = "Decode_error";
    else if (result.fault == StoreFault::NotStored)
        word = "exc_error_ext";
    QJsonObject object{{QStringLiteral("res"), false}, {QStringLiteral("info"), QLatin1String(word)}};
    if (!result.sql.isEmpty())
        object.insert(QStringLiteral("sqline"), result.sql);
    return reply(object);
}

QByteArray DumpController_add_user::storeUploadedAudio(const Call& call, const char* sizeKey) {
    const FileStore store(db());
    const auto work = store.workDirectory();
    const QString source = work->filePath(QStringLiteral("upload"));
    if (!work->isValid() || !FileStore::copyTo(*call.file(), source))
        return refusal(QStringLiteral("exc_error_ext"));
    const StoreResult result = storeAudio(
        db(), store, {call.userid(), call.fileName(), m_devices->bitrate, Keep::ByCleanName}, source, *work);
    if (!result.stored)
        return storeRefusal(result);
    QJsonObject object = storedReply(*result.stored, store);
    object.insert(QString::fromLatin1(sizeKey), result.stored->measure.bytes);
    return reply(object);
}

QByteArray DumpController_add_user::user_reg_file(const Call& call) {
    return storeUploadedAudio(call, "filesize");
}

QByteArray DumpController_add_user::user_wxreg_file(const Call& call) {
    return storeUploadedAudio(call, "fileByte");
}

QByteArray DumpController_add_user::user_get_filelist(const Call& call) {
    return listReply(db(), call.userid(), db().site.preurl);
}

QByteArray DumpController_add_user::user_get_filelist_wx(const Call& call) {
    return listReply(db(), call.userid(), db().site.wxcxpreurl);
}

QByteArray DumpController_add_user::user_get_filelist_lite(const Call& call) {
    const FileStore store(db());
    QJsonArray files;
    listFolder(store, QStringLiteral("mp3"), files);
    listFolder(store, QStringLiteral("mp3/%1").arg(call.userid()), files);
    return success({{QStringLiteral("userid"), call.userid()}, {QStringLiteral("filelist"), files}});
}

QByteArray DumpController_add_user::user_del_file(const Call& call) {
    const SqlArgs args{{QStringLiteral("@fileid"), call.number("fileid")},
                       {QStringLiteral("@userid"), call.userid()}};
    const SqlResult found = db().run(
        QStringLiteral("select  *  FROM  `userfile` WHERE (`id`= '@fileid' and `userid` = '@userid' )"),
        args);
    if (!found.ok)
        return refusal(QStringLiteral("ER_EXE1"));
    if (found.isEmpty())
        return refusal(QStringLiteral("ER_REJECT"));
    const SqlResult gone = db().run(
        QStringLiteral("DELETE FROM  `userfile` WHERE (`id`= '@fileid' and userid = '@userid' )"), args);
    if (!gone.ok)
        return refusal(QStringLiteral("ER_EXE2"));
    if (!FileStore(db()).remove(found.text(0, "url")))
        return refusal(QStringLiteral("ER_EXE3"));
    return success({{QStringLiteral("EF"), gone.affected}});
}

QByteArray DumpController_add_user::user_del_file_lite(const Call& /*call*/) {
    return QByteArrayLiteral(
        "this opt on lite devs / You can delete it By yourself /in dir of file save base dir");
}
