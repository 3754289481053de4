#pragma once

#include "service/audio.h"

#include <functional>
#include <optional>
#include <QList>
#include <QString>
#include <vector>

class FileStore;
class QTemporaryDir;
class sqlite;

// The sounds of accounts: rows of `userfile` and the MP3 files that they name. Any thread that may block, on
// its own database object.

/// A stored audio file: what the caller is told and the table holds.
struct StoredAudio {
    qint64 id = 0; ///< row of `userfile`; 0 when no row was asked for
    QString url;   ///< relative to the document root
    audio::Measure measure{};
};

enum class StoreFault {
    None,
    Undecodable, ///< the bytes are no sound, or a cut one
    NotStored,   ///< a program or the file system failed
    Database
};

struct StoreResult {
    std::optional<StoredAudio> stored;
    StoreFault fault = StoreFault::None;
    QString sql; ///< of a failed statement, as a reply may show it
};

/// What becomes of a sound's name.
enum class Keep {
    FileAlone,   ///< no row, as without a database of files; named as ByCleanName
    ByCleanName, ///< the name without what addresses can't carry; one file for each name of an account: a
                 ///< later one takes the place of the earlier, whose row and number stay
    Whole        ///< the name as it is, several alike side by side
};

struct AudioUpload {
    int userid;
    QString name; ///< as the user gave it
    int bitrate;  ///< kbit/s
    Keep keep;
};

/// Encodes `source` (in `work`), installs it and writes its row.
StoreResult storeAudio(sqlite& database, const FileStore& store, const AudioUpload& upload,
                       const QString& source, const QTemporaryDir& work);

/// A row of `userfile`.
struct Sound {
    qint64 id = 0;
    int owner = 0;
    QString name;
    int seconds = 0;
    qint64 bytes = 0;
    QString url; ///< relative to the document root
};

/// What a list of sounds holds.
struct SoundQuery {
    std::optional<QList<qint64>> owners; ///< none: everybody's
    QString text;                        ///< part of the name, in any case; empty: all
    qint64 after = 0;                    ///< only greater ids
};

/// At most `most` sounds by ascending ids; nullopt when the database does not answer.
std::optional<std::vector<Sound>> listSounds(sqlite& database, const SoundQuery& query, size_t most);
/// nullopt when there is none.
std::optional<Sound> findSound(sqlite& database, qint64 id);
bool renameSound(sqlite& database, qint64 id, const QString& name);
/// The tasks that play it, by ascending ids.
QList<qint64> tasksWithSound(sqlite& database, qint64 id);

enum class SoundRemoval { Done, InUse, Failed };
/// Deletes row and file, unless a task plays it.
SoundRemoval removeSound(sqlite& database, const FileStore& store, const Sound& sound);
