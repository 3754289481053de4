#include "service/playlog.h"

#include "journal/broadcast.h"
#include "journal/numbers.h"
#include "service/visibility.h"

#include <limits>
#include <QHash>

namespace {

constexpr qint64 Latest = std::numeric_limits<qint64>::max();

// A receipt r of a speaker that the caller may see; d is the speaker.
const auto IsVisible =
    QStringLiteral("d.`device_seed` = r.`serial` AND (d.`user_id` = @me OR d.`id` IN ( @ids ))");
const auto TouchesVisible =
    QStringLiteral("(@all = 1 OR b.`owner` = @me OR b.`account` = @me OR EXISTS (SELECT 1 FROM `receipt` r, "
                   "`sbox_device_info` d WHERE r.`broadcast` = b.`id` AND %1))")
        .arg(IsVisible);
// Rows of one broadcast, one a node, stand together: the page is of numbers, not of rows.
const auto Numbers =
    QStringLiteral(
        "SELECT DISTINCT b.`id` FROM `broadcast` b WHERE b.`id` < @before AND b.`id` >= @first AND "
        "b.`id` < @last AND (@one = 0 OR b.`id` = @one) AND ('@state' = '' OR b.`state` = '@state') AND "
        "('@kind' = '' OR b.`kind` = '@kind') AND %1 ORDER BY b.`id` DESC LIMIT @limit")
        .arg(TouchesVisible);
const auto Rows =
    QStringLiteral("SELECT b.* FROM `broadcast` b WHERE b.`id` IN ( @numbers ) ORDER BY b.`id` DESC");
const auto VisibleCounts =
    QStringLiteral(
        "SELECT r.`broadcast`, r.`state`, COUNT(*) AS `n` FROM `receipt` r, `sbox_device_info` d WHERE "
        "r.`broadcast` IN ( @numbers ) AND %1 GROUP BY r.`broadcast`, r.`state`")
        .arg(IsVisible);
const auto Receipts =
    QStringLiteral(
        "SELECT r.* FROM `receipt` r WHERE r.`broadcast` = @broadcast AND r.`serial` > '@after' AND "
        "(@state = -1 OR r.`state` = @state) AND (@all = 1 OR EXISTS (SELECT 1 FROM `sbox_device_info` "
        "d WHERE %1)) ORDER BY r.`serial` LIMIT @limit")
        .arg(IsVisible);
const auto Entries = QStringLiteral("SELECT j.* FROM `journal` j WHERE j.`id` < @before AND j.`id` >= @first "
                                    "AND j.`id` < @last AND ('@state' = "
                                    "'' OR j.`state` = '@state') AND ('@kind' = '' OR j.`kind` = '@kind') "
                                    "AND (@all = 1 OR j.`account` = @me OR "
                                    "(j.`serial` != '' AND EXISTS (SELECT 1 FROM `sbox_device_info` d WHERE "
                                    "d.`device_seed` = j.`serial` AND "
                                    "(d.`user_id` = @me OR d.`id` IN ( @ids )))) OR (j.`broadcast` != 0 AND "
                                    "EXISTS (SELECT 1 FROM `receipt` r, "
                                    "`sbox_device_info` d WHERE r.`broadcast` = j.`broadcast` AND %1))) "
                                    "ORDER BY j.`id` DESC LIMIT @limit")
                         .arg(IsVisible);

constexpr const char* Counts[] = {"n_waiting", "n_offline",   "n_sent", "n_started", "n_completed",
                                  "n_stopped", "n_overruled", "n_lost", "n_silent",  "n_refused"};

SqlArg arg(const char* name, qint64 value) {
    return {QLatin1String(name), value};
}

SqlArg textArg(const char* name, const QString& value) {
    return {QLatin1String(name), value};
}

SqlArgs rightsOf(sqlite& database, const Caller& caller) {
    return {arg("@all", caller.isAdmin ? 1 : 0),
            arg("@me", caller.account),
            {QStringLiteral("@ids"), visible(database, caller).speakers.ids.values()}};
}

/// Numbers of this span of time.
void addSpan(SqlArgs& args, qint64 from, qint64 until) {
    args.push_back(arg("@first", from > 0 ? static_cast<qint64>(BroadcastNumbers::firstAt(from)) : 0));
    args.push_back(arg("@last", until > 0 ? static_cast<qint64>(BroadcastNumbers::firstAt(until)) : Latest));
}

int columnOf(const SqlResult& rows, const char* name) {
    return rows.columns.indexOf(QLatin1String(name));
}

/// One row a broadcast: the node's that opened it where it is there, with the counts of all.
SqlResult merged(const SqlResult& rows) {
    SqlResult result = rows;
    result.rows.clear();
    for (int row = 0; row < rows.rows.size(); ++row) {
        const quint64 id = rows.value(row, "id").toULongLong();
        const bool isSame = !result.isEmpty() && result.rows.last()[columnOf(rows, "id")].toULongLong() == id;
        const bool isOrigin = rows.integer(row, "node") == BroadcastNumbers::nodeOf(id);
        if (!isSame) {
            result.rows.append(rows.rows.at(row));
            continue;
        }
        QVector<QVariant> sum = isOrigin ? rows.rows.at(row) : result.rows.last();
        const QVector<QVariant>& other = isOrigin ? result.rows.last() : rows.rows.at(row);
        const auto add = [&](const char* name) {
            const int column = columnOf(rows, name);
            sum[column] = sum[column].toInt() + other[column].toInt();
        };
        add("targets");
        for (const char* const count : Counts)
            add(count);
        const int state = columnOf(rows, "state");
        if (other[state].toString() == nameOf(BroadcastState::Playing)) // its part goes on
            sum[state] = other[state];
        result.rows.last() = sum;
    }
    return result;
}

/// Of others' broadcasts only the speakers that the caller may see count.
bool countVisible(sqlite& database, const SqlArgs& rights, const Caller& caller, SqlResult& rows) {
    QHash<qint64, int> others; // number to row
    for (int row = 0; row < rows.rows.size(); ++row) {
        if (!caller.isAdmin && rows.value(row, "owner").toLongLong() != caller.account) {
            others.insert(rows.value(row, "id").toLongLong(), row);
            for (const char* const name : Counts)
                rows.rows[row][columnOf(rows, name)] = 0;
            rows.rows[row][columnOf(rows, "targets")] = 0;
        }
    }
    if (others.isEmpty())
        return true;
    SqlArgs args = rights;
    args.emplace_back(QStringLiteral("@numbers"), others.keys());
    const SqlResult counts = database.run(VisibleCounts, args);
    for (int i = 0; i < counts.rows.size(); ++i) {
        QVector<QVariant>& row = rows.rows[others.value(counts.value(i, "broadcast").toLongLong())];
        const auto state = static_cast<size_t>(counts.integer(i, "state"));
        if (state >= ReceiptStates)
            continue;
        row[columnOf(rows, Counts[state])] = counts.integer(i, "n");
        row[columnOf(rows, "targets")] = row[columnOf(rows, "targets")].toInt() + counts.integer(i, "n");
    }
    return counts.ok;
}

} // namespace

SqlResult findBroadcasts(sqlite& database, const Caller& caller, const BroadcastQuery& query) {
    const SqlArgs rights = rightsOf(database, caller);
    SqlArgs args = rights;
    addSpan(args, query.from, query.until);
    args.push_back(arg("@before", query.before > 0 ? query.before : Latest));
    args.push_back(arg("@one", query.id));
    args.push_back(textArg("@state", query.state));
    args.push_back(textArg("@kind", query.kind));
    args.push_back(arg("@limit", query.limit));
    const SqlResult numbers = database.run(Numbers, args);
    if (!numbers.ok)
        return numbers;
    QList<qint64> ids;
    for (int row = 0; row < numbers.rows.size(); ++row)
        ids << numbers.value(row, "id").toLongLong();
    SqlResult rows = merged(database.run(Rows, {{QStringLiteral("@numbers"), ids}}));
    rows.ok = rows.ok && countVisible(database, rights, caller, rows);
    return rows;
}

SqlResult findReceipts(sqlite& database, const Caller& caller, qint64 broadcast, std::optional<int> state,
                       const QString& after, int limit) {
    const SqlResult owner = findBroadcasts(database, caller, {{}, {}, 0, 0, 0, broadcast, 1});
    SqlArgs args = rightsOf(database, caller);
    if (!owner.ok)
        return {};
    const bool isOwn = caller.isAdmin || owner.value(0, "owner").toLongLong() == caller.account;
    args.front() = arg("@all", isOwn ? 1 : 0);
    args.push_back(arg("@broadcast", broadcast));
    args.push_back(arg("@state", state.value_or(-1)));
    args.push_back(textArg("@after", after));
    args.push_back(arg("@limit", limit));
    return database.run(Receipts, args);
}

SqlResult findEntries(sqlite& database, const Caller& caller, const EntryQuery& query) {
    SqlArgs args = rightsOf(database, caller);
    addSpan(args, query.from, query.until);
    args.push_back(arg("@before", query.before > 0 ? query.before : Latest));
    args.push_back(textArg("@state", query.state));
    args.push_back(textArg("@kind", query.kind));
    args.push_back(arg("@limit", query.limit));
    return database.run(Entries, args);
}
