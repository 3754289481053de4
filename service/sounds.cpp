#include "service/sounds.h"

#include "service/filestore.h"

#include "core/sql/sqlite.h"

#include <QTemporaryDir>
#include <QUuid>

namespace {

const QString SelectSame =
    QStringLiteral("SELECT `id` FROM `userfile` WHERE (`userid` = '@userid' and `url` = '@url')");
const QString InsertFile =
    QStringLiteral("INSERT INTO  `userfile` (`userid`, `filename`, `url`, `len`, `crl`,   `ziuse`, "
                   "`sizeByte`)                             VALUES ( '@userid', '@filename', '@url', "
                   "'@len' , '@crl' , 1 , '@filesize' )");
const QString UpdateFile =
    QStringLiteral("UPDATE `userfile` SET `filename` = '@filename', `len` = '@len', `crl` = '@crl', "
                   "`sizeByte` = '@filesize' WHERE (`userid` = '@userid' and `url` = '@url')");
const QString SelectSounds = QStringLiteral(
    "SELECT `id`, `userid`, `filename`, `url`, `len`, `sizeByte` FROM `userfile` WHERE ( `id` > @after and "
    "( @everybody = 1 or `userid` in ( @owners ) ) ) ORDER BY `id` LIMIT @most;");
const QString SelectSound = QStringLiteral(
    "SELECT `id`, `userid`, `filename`, `url`, `len`, `sizeByte` FROM `userfile` WHERE ( `id` = @id );");
const QString RenameSound =
    QStringLiteral("UPDATE `userfile` SET `filename` = '@filename' WHERE ( `id` = @id );");
const QString SelectTasks = QStringLiteral(
    "SELECT DISTINCT `task`.`id` AS `id` FROM `taskfile`, `task` WHERE ( `taskfile`.`fileid` = @id and "
    "`task`.`id` = `taskfile`.`taskid` ) ORDER BY `task`.`id`;");
const QString DeleteSound = QStringLiteral("DELETE FROM `userfile` WHERE ( `id` = @id );");
const QString SelectUrl = QStringLiteral("SELECT `id` FROM `userfile` WHERE ( `url` = '@url' ) LIMIT 1;");

QString base64(const QString& name) {
    return QString::fromLatin1(name.toUtf8().toBase64());
}

/// No name of the older uploads, which are hexadecimal digits, begins so.
QString newUrl(int userid) {
    return QStringLiteral("mp3/%1/s%2.mp3").arg(userid).arg(QUuid::createUuid().toString(QUuid::Id128));
}

StoreResult failed(StoreFault fault, const QString& sql = {}) {
    return {std::nullopt, fault, sql};
}

/// Writes the row, taking over the one that this user already has for the address.
StoreResult writeRow(sqlite& database, const AudioUpload& upload, StoredAudio audio) {
    const QString name = upload.keep == Keep::Whole ? upload.name : FileStore::cleanName(upload.name);
    const SqlArgs args{{QStringLiteral("@userid"), upload.userid},
                       {QStringLiteral("@filename"), base64(name)},
                       {QStringLiteral("@url"), audio.url},
                       {QStringLiteral("@len"), audio.measure.seconds},
                       {QStringLiteral("@crl"), audio.measure.checksum},
                       {QStringLiteral("@filesize"), audio.measure.bytes}};
    const SqlResult old = database.run(SelectSame, args);
    if (!old.ok)
        return failed(StoreFault::Database, sqlLine(SelectSame, args));
    const QString& statement = old.isEmpty() ? InsertFile : UpdateFile;
    const SqlResult written = database.run(statement, args);
    if (!written.ok)
        return failed(StoreFault::Database, sqlLine(statement, args));
    audio.id = old.isEmpty() ? written.lastId : old.integer(0, "id");
    return {audio, StoreFault::None, {}};
}

Sound soundOf(const SqlResult& rows, int row) {
    return {rows.value(row, "id").toLongLong(),
            rows.integer(row, "userid"),
            QString::fromUtf8(QByteArray::fromBase64(rows.text(row, "filename").toLatin1())),
            rows.integer(row, "len"),
            rows.value(row, "sizeByte").toLongLong(),
            rows.text(row, "url")};
}

} // namespace

StoreResult storeAudio(sqlite& database, const FileStore& store, const AudioUpload& upload,
                       const QString& source, const QTemporaryDir& work) {
    const QString encoded = work.filePath(QStringLiteral("encoded.mp3"));
    const audio::Outcome outcome = audio::encode(source, encoded, work.path(), upload.bitrate);
    if (outcome != audio::Outcome::Done)
        return failed(outcome == audio::Outcome::Undecodable ? StoreFault::Undecodable
                                                             : StoreFault::NotStored);
    const auto measure = audio::measure(encoded);
    if (!measure)
        return failed(StoreFault::Undecodable);
    const QString url = upload.keep == Keep::Whole
                            ? newUrl(upload.userid)
                            : FileStore::audioUrl(upload.userid, FileStore::cleanName(upload.name));
    const StoredAudio audio{0, url, *measure};
    if (!store.install(encoded, url))
        return failed(StoreFault::NotStored);
    if (upload.keep == Keep::FileAlone)
        return {audio, StoreFault::None, {}};
    const StoreResult result = writeRow(database, upload, audio);
    if (!result.stored && upload.keep == Keep::Whole)
        store.remove(url); // nobody could find it
    return result;
}

std::optional<std::vector<Sound>> listSounds(sqlite& database, const SoundQuery& query, size_t most) {
    constexpr qint64 AtOnce = 1000;
    std::vector<Sound> found;
    qint64 after = query.after;
    bool isMore = true;
    while (isMore && found.size() < most) {
        // Names stand there in base64, in which no part of them can be looked for.
        const qint64 wanted = query.text.isEmpty() ? static_cast<qint64>(most - found.size()) : AtOnce;
        const SqlResult rows =
            database.run(SelectSounds, {{QStringLiteral("@after"), after},
                                        {QStringLiteral("@everybody"), query.owners ? 0 : 1},
                                        {QStringLiteral("@owners"), query.owners.value_or(QList<qint64>())},
                                        {QStringLiteral("@most"), wanted}});
        if (!rows.ok)
            return std::nullopt;
        for (int row = 0; row < rows.rows.size() && found.size() < most; ++row) {
            const Sound sound = soundOf(rows, row);
            after = sound.id;
            if (sound.name.contains(query.text, Qt::CaseInsensitive))
                found.push_back(sound);
        }
        isMore = rows.rows.size() == wanted;
    }
    return found;
}

std::optional<Sound> findSound(sqlite& database, qint64 id) {
    const SqlResult rows = database.run(SelectSound, {{QStringLiteral("@id"), id}});
    return rows.isEmpty() ? std::nullopt : std::optional(soundOf(rows, 0));
}

bool renameSound(sqlite& database, qint64 id, const QString& name) {
    return database
        .run(RenameSound, {{QStringLiteral("@filename"), base64(name)}, {QStringLiteral("@id"), id}})
        .ok;
}

QList<qint64> tasksWithSound(sqlite& database, qint64 id) {
    const SqlResult rows = database.run(SelectTasks, {{QStringLiteral("@id"), id}});
    QList<qint64> tasks;
    for (int row = 0; row < rows.rows.size(); ++row)
        tasks += rows.value(row, "id").toLongLong();
    return tasks;
}

SoundRemoval removeSound(sqlite& database, const FileStore& store, const Sound& sound) {
    bool isUsed = false;
    bool isFileUsed = true;
    const bool isDone = database.transaction([&] {
        const SqlResult tasks = database.run(SelectTasks, {{QStringLiteral("@id"), sound.id}});
        isUsed = !tasks.isEmpty();
        if (!tasks.ok || isUsed || !database.run(DeleteSound, {{QStringLiteral("@id"), sound.id}}).ok)
            return false;
        const SqlResult others = database.run(SelectUrl, {{QStringLiteral("@url"), sound.url}});
        isFileUsed = !others.ok || !others.isEmpty();
        return true;
    });
    if (!isDone)
        return isUsed ? SoundRemoval::InUse : SoundRemoval::Failed;
    if (!isFileUsed)
        store.remove(sound.url);
    return SoundRemoval::Done;
}
