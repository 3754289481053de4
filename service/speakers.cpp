#include "service/speakers.h"

#include "service/serial.h"

#include "core/sql/sqlite.h"
#include "device/severinit.h"

#include <algorithm>
#include <limits>

namespace {

/// Values of one statement: SQLite takes a text of a million bytes.
constexpr int AtOnce = 1000;
constexpr qint64 Nobody = -1; ///< rows without an owner bear the number 0

const QString InsertSpeaker = QStringLiteral(
    "INSERT INTO  `sbox_device_info` (`user_id`, `device_name`, `device_code`, `device_seed`, `node_id`, "
    "`userid_seed`, `kind`, `iswarning`)   VALUES ('@user_id', '@device_name', '@device_code', "
    "'@device_seed', 1, '@userid_seed', @kind , @iswarning )");
const QString SelectSpeakers = QStringLiteral(
    "SELECT `id`, `device_seed`, `device_name`, `user_id`, `node_id`, `vol`, `status` FROM "
    "`sbox_device_info` WHERE ( `id` > @after and ( @all = 1 or `user_id` = @owner or `id` in ( @ids ) ) ) "
    "ORDER BY `id` LIMIT @most;");
const QString SelectMatching = QStringLiteral(
    "SELECT `id`, `device_seed`, `device_name`, `user_id`, `node_id`, `vol`, `status` FROM "
    "`sbox_device_info` WHERE ( `id` > @after and ( @all = 1 or `user_id` = @owner or `id` in ( @ids ) ) and "
    "( instr(lower(`device_name`), '@text') > 0 or instr(`device_seed`, '@text') > 0 ) ) ORDER BY `id` LIMIT "
    "@most;");
const QString SelectAmong =
    QStringLiteral("SELECT `id`, `device_seed`, `device_name`, `user_id`, `node_id`, `vol`, `status` FROM "
                   "`sbox_device_info` WHERE ( `id` in ( @among ) and ( @all = 1 or `user_id` = @owner or "
                   "`id` in ( @ids ) ) "
                   ") ORDER BY `id`;");
const QString SelectSerials =
    QStringLiteral("SELECT `id`, `device_seed`, `device_name`, `user_id`, `node_id`, `vol`, `status` FROM "
                   "`sbox_device_info` WHERE ( `device_seed` in ('@serials') );");
const QString SelectSerial =
    QStringLiteral("SELECT `device_seed` FROM `sbox_device_info` WHERE `id` = '@id' ;");
const QString SelectAny =
    QStringLiteral("SELECT `id` FROM `sbox_device_info` WHERE `device_seed` = '@sn' limit 1 ;");
const QString RenameSpeaker =
    QStringLiteral("UPDATE `sbox_device_info` SET `device_name` = '@name' WHERE ( `id` = @id );");
const QString DeleteSpeaker = QStringLiteral("DELETE FROM `sbox_device_info` WHERE ( `id` = @id );");
const QString DeleteFromGroups = QStringLiteral("DELETE FROM `group_seed` WHERE ( `devid` = @id );");
const QString DeleteFromTasks = QStringLiteral("DELETE FROM `taskseed` WHERE ( `devseedid` = @id );");
const QString DeleteDisabled =
    QStringLiteral("DELETE FROM `speaker_disabled` WHERE ( `serial` = '@serial' );");

bool insert(sqlite& database, const NewSpeakers& added, const QString& serial) {
    return database
        .run(InsertSpeaker, {{QStringLiteral("@user_id"), added.userid},
                             {QStringLiteral("@device_name"), added.name},
                             {QStringLiteral("@device_code"), serial},
                             {QStringLiteral("@device_seed"), serial},
                             {QStringLiteral("@userid_seed"), accountSerial(added.userid, serial)},
                             {QStringLiteral("@kind"), 1},
                             {QStringLiteral("@iswarning"), added.iswarning}})
        .ok;
}

void append(std::vector<Speaker>& speakers, const SqlResult& rows) {
    for (const auto& row : rows.rows)
        speakers.push_back({row[0].toLongLong(), row[1].toString(), row[2].toString(), row[3].toInt(),
                            row[4].toInt(), row[5].toInt(), row[6].toInt()});
}

bool isAscii(const QString& text) {
    return std::all_of(text.begin(), text.end(), [](QChar c) { return c.unicode() < 128; });
}

/// The rows of a query, some at a time.
class Reader {
public:
    Reader(sqlite& database, const SpeakerQuery& query)
        : m_database(database)
        , m_query(query)
        , m_after(query.after) {
        if (query.among)
            m_next = std::upper_bound(query.among->begin(), query.among->end(), m_after);
    }

    /// At most `most` rows, or more to choose from; false when the database does not answer.
    bool read(size_t most, std::vector<Speaker>& found) {
        const bool chooses = m_query.sieve || !m_query.text.isEmpty();
        const qint64 wanted = chooses ? AtOnce : static_cast<qint64>(std::min<size_t>(most, AtOnce));
        const SqlResult rows = m_query.among ? among() : next(wanted);
        if (!m_query.among)
            m_isOver = rows.rows.size() < wanted;
        append(found, rows);
        if (!found.empty())
            m_after = found.back().id;
        return rows.ok;
    }
    bool isOver() const { return m_isOver; }

private:
    SqlArgs scope() const {
        return {{QStringLiteral("@all"), m_query.scope.isAll ? 1 : 0},
                {QStringLiteral("@owner"), m_query.scope.owner > 0 ? m_query.scope.owner : Nobody},
                {QStringLiteral("@ids"), m_query.scope.ids.values()}};
    }

    SqlResult among() {
        QList<qint64> some;
        for (; m_next != m_query.among->end() && some.size() < AtOnce; ++m_next)
            some += *m_next;
        m_isOver = m_next == m_query.among->end();
        SqlArgs args = scope();
        args.emplace_back(QStringLiteral("@among"), some);
        return m_database.run(SelectAmong, args);
    }

    SqlResult next(qint64 most) {
        SqlArgs args = scope();
        args.emplace_back(QStringLiteral("@after"), m_after);
        args.emplace_back(QStringLiteral("@most"), most);
        // What a database takes for the same letter in other scripts differs: those are looked at here alone.
        if (m_query.text.isEmpty() || !isAscii(m_query.text))
            return m_database.run(SelectSpeakers, args);
        args.emplace_back(QStringLiteral("@text"), m_query.text.toLower());
        return m_database.run(SelectMatching, args);
    }

    sqlite& m_database;
    const SpeakerQuery& m_query;
    qint64 m_after;
    QList<qint64>::const_iterator m_next;
    bool m_isOver = false;
};

void leaveMatching(std::vector<Speaker>& speakers, const QString& text) {
    const auto isOther = [&](const Speaker& speaker) {
        return !speaker.name.contains(text, Qt::CaseInsensitive) &&
               !speaker.serial.contains(text, Qt::CaseInsensitive);
    };
    speakers.erase(std::remove_if(speakers.begin(), speakers.end(), isOther), speakers.end());
}

} // namespace

SerialFault serialFault(const QString& serial, const Severinit& devices) {
    if (serial.isEmpty())
        return SerialFault::Missing;
    if (serial.size() != SerialLength)
        return SerialFault::Length;
    if (!isFullSerial(serial))
        return SerialFault::Digits;
    return devices.serialAllowed(serial) ? SerialFault::None : SerialFault::Blocked;
}

QString accountSerial(int userid, const QString& serial) {
    return QString::number(userid) + serial;
}

bool addSpeakers(sqlite& database, Severinit& devices, const NewSpeakers& added) {
    const bool isStored = database.transaction([&] {
        return std::all_of(added.serials.begin(), added.serials.end(),
                           [&](const QString& serial) { return insert(database, added, serial); });
    });
    if (isStored)
        devices.tellAgain(added.serials); // they may have been online before anybody owned them
    return isStored;
}

std::optional<std::vector<Speaker>> listSpeakers(sqlite& database, const SpeakerQuery& query, size_t most) {
    std::vector<Speaker> found;
    Reader reader(database, query);
    while (found.size() < most && !reader.isOver()) {
        std::vector<Speaker> some;
        if (!reader.read(most - found.size(), some))
            return std::nullopt;
        if (!query.text.isEmpty())
            leaveMatching(some, query.text);
        if (query.sieve)
            query.sieve(some);
        found.insert(found.end(), some.begin(), some.end());
    }
    if (found.size() > most)
        found.resize(most);
    return found;
}

std::optional<Speaker> findSpeaker(sqlite& database, const QString& serial) {
    const auto found = findSpeakers(database, {serial});
    return found && !found->empty() ? std::optional(found->front()) : std::nullopt;
}

std::optional<std::vector<Speaker>> findSpeakers(sqlite& database, const QStringList& serials) {
    std::vector<Speaker> found;
    for (int from = 0; from < serials.size(); from += AtOnce) {
        const SqlResult rows =
            database.run(SelectSerials, {{QStringLiteral("@serials"), serials.mid(from, AtOnce)}});
        if (!rows.ok)
            return std::nullopt;
        append(found, rows);
    }
    return found;
}

bool renameSpeaker(sqlite& database, qint64 id, const QString& name) {
    return database.run(RenameSpeaker, {{QStringLiteral("@name"), name}, {QStringLiteral("@id"), id}}).ok;
}

bool removeSpeaker(sqlite& database, Severinit& devices, const Speaker& speaker) {
    const SqlArgs args{{QStringLiteral("@id"), speaker.id}};
    const bool isGone = database.transaction([&] {
        return database.run(DeleteFromGroups, args).ok && database.run(DeleteFromTasks, args).ok &&
               database.run(DeleteDisabled, {{QStringLiteral("@serial"), speaker.serial}}).ok &&
               database.run(DeleteSpeaker, args).ok;
    });
    if (isGone)
        tellIfForgotten(database, devices, speaker.serial);
    return isGone;
}

QString serialOf(sqlite& database, qint64 id) {
    const SqlResult row = database.run(SelectSerial, {{QStringLiteral("@id"), id}});
    return row.isEmpty() ? QString() : row.text(0, "device_seed");
}

void tellIfForgotten(sqlite& database, Severinit& devices, const QString& serial) {
    const SqlResult rows = database.run(SelectAny, {{QStringLiteral("@sn"), serial}});
    if (rows.ok && rows.rows.isEmpty())
        devices.forgetStored(serial);
}
