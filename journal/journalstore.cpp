#include "journal/journalstore.h"

#include "journal/numbers.h"

#include "core/sql/sqlite.h"

#include <QDateTime>

namespace {

// One row of each table; more of them follow in one statement.
constexpr auto ReceiptHead = "REPLACE INTO `receipt` (`broadcast`, `serial`, `node`, `state`, `reason`, "
                             "`by_broadcast`, `sent`, `started`, `ended`) VALUES ";
constexpr auto ReceiptMarks = "(?,?,?,?,?,?,?,?,?)";
constexpr auto BroadcastRowText =
    "REPLACE INTO `broadcast` (`id`, `node`, `kind`, `name`, `priority`, `owner`, `account`, `schedule`, "
    "`input`, `line`, `path`, `state`, `reason`, `due`, `started`, `ended`, `targets`, `n_waiting`, "
    "`n_offline`, `n_sent`, `n_started`, `n_completed`, `n_stopped`, `n_overruled`, `n_lost`, `n_silent`, "
    "`n_refused`) VALUES (?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?)";
constexpr auto EntryRowText = "REPLACE INTO `journal` (`id`, `at`, `kind`, `state`, `name`, `reason`, `due`, "
                              "`late`, `broadcast`, `schedule`, `account`, `serial`) VALUES "
                              "(?,?,?,?,?,?,?,?,?,?,?,?)";

const auto Highest = QStringLiteral("SELECT MAX(`id`) AS `id` FROM `broadcast`");
const auto HighestEntry = QStringLiteral("SELECT MAX(`id`) AS `id` FROM `journal`");
const auto LeftOpen =
    QStringLiteral("SELECT `id`, `kind`, `name`, `due`, `schedule`, `owner`, `started` FROM "
                   "`broadcast` WHERE `node` = @node AND `state` IN ('waiting', 'playing')");
// What was under way is lost (7), what waited was stopped (5).
const auto CloseReceipts = QStringLiteral(
    "UPDATE `receipt` SET `state` = CASE WHEN `state` = 0 THEN 5 ELSE 7 END, `reason` = '@reason', "
    "`ended` = @now WHERE `broadcast` = @id AND `node` = @node AND `state` IN (0, 2, 3)");
const auto CountReceipts =
    QStringLiteral("SELECT `state`, COUNT(*) AS `n` FROM `receipt` WHERE `broadcast` = @id "
                   "AND `node` = @node GROUP BY `state`");
const auto Fail = QStringLiteral(
    "UPDATE `broadcast` SET `state` = 'failed', `reason` = '@reason', `ended` = @now, `targets` = @all, "
    "`n_waiting` = @n0, `n_offline` = @n1, `n_sent` = @n2, `n_started` = @n3, `n_completed` = @n4, "
    "`n_stopped` = "
    "@n5, `n_overruled` = @n6, `n_lost` = @n7, `n_silent` = @n8, `n_refused` = @n9 WHERE `id` = @id AND "
    "`node` = "
    "@node");
const auto ServiceEnded = QStringLiteral("the service ended");

constexpr int RowsAtOnce = 100; ///< of one statement
constexpr int RowsRemoved = 500;
constexpr int MaxText = 255;

QVariant number(quint64 value) {
    return static_cast<qint64>(value);
}

/// The empty text is one, no text is NULL.
QVariant reasonOf(const QString& reason) {
    return reason.isNull() ? QVariant(QVariant::String) : QVariant(reason.left(MaxText));
}

/// Not null, which the columns can't be.
QString text(const QString& value, int most = MaxText) {
    return value.isNull() ? QStringLiteral("") : value.left(most);
}

BoundSql receiptStatement(const ReceiptRow* first, int count, int node) {
    BoundSql statement;
    statement.text = QLatin1String(ReceiptHead);
    for (int i = 0; i < count; ++i) {
        statement.text += QLatin1String(i == 0 ? "" : ",") + QLatin1String(ReceiptMarks);
        const ReceiptRow& row = first[i];
        statement.values << number(row.broadcast) << row.serial << node << static_cast<int>(row.state)
                         << reasonOf(row.reason) << number(row.by) << row.sent << row.started << row.ended;
    }
    return statement;
}

} // namespace

bool JournalStore::write(const std::vector<ReceiptRow>& rows) {
    const int size = static_cast<int>(rows.size());
    int at = 0;
    while (at < size) {
        const int left = size - at;
        const int count = left >= RowsAtOnce ? RowsAtOnce : left >= 10 ? 10 : 1; // few texts to be prepared
        if (!m_database.run(receiptStatement(&rows[static_cast<size_t>(at)], count, m_node)).ok)
            return false;
        at += count;
    }
    return true;
}

bool JournalStore::write(const std::vector<BroadcastRow>& rows) {
    for (const BroadcastRow& row : rows) {
        const Broadcast& b = row.broadcast;
        BoundSql statement{QLatin1String(BroadcastRowText), {}, {}};
        statement.values << number(row.id) << m_node << nameOf(b.kind) << text(b.name) << b.priority
                         << b.owner << b.origin.account << b.origin.schedule << b.origin.input
                         << text(b.origin.line, 64) << text(b.origin.path) << nameOf(row.state)
                         << reasonOf(row.reason) << b.due << row.started << row.ended << row.targets;
        for (const int count : row.counts)
            statement.values << count;
        if (!m_database.run(statement).ok)
            return false;
    }
    return true;
}

bool JournalStore::write(const std::vector<EntryRow>& rows) {
    for (const EntryRow& row : rows) {
        BoundSql statement{QLatin1String(EntryRowText), {}, {}};
        statement.values << number(row.id) << row.at << row.kind << text(row.state, 32) << text(row.name)
                         << reasonOf(row.reason) << row.due << row.lateMs << number(row.broadcast)
                         << row.schedule << row.account << text(row.serial, 64);
        if (!m_database.run(statement).ok)
            return false;
    }
    return true;
}

// --- after a start ---

bool JournalStore::recover(BroadcastNumbers& numbers) {
    const SqlResult highest = m_database.run(Highest);
    const SqlResult highestEntry = m_database.run(HighestEntry);
    const SqlResult open = m_database.run(LeftOpen, {{QStringLiteral("@node"), m_node}});
    if (!highest.ok || !highestEntry.ok || !open.ok)
        return false;
    numbers.raise(std::max(highest.value(0, "id").toULongLong(), highestEntry.value(0, "id").toULongLong()));
    if (open.isEmpty())
        return true;
    const qint64 now = QDateTime::currentMSecsSinceEpoch();
    return m_database.transaction([&] {
        for (int row = 0; row < open.rows.size(); ++row) {
            EntryRow entry;
            entry.id = numbers.next(now);
            entry.at = now;
            entry.kind = open.text(row, "kind");
            entry.state = nameOf(BroadcastState::Failed);
            entry.name = open.text(row, "name");
            entry.reason = ServiceEnded;
            entry.due = open.value(row, "due").toLongLong();
            entry.broadcast = open.value(row, "id").toULongLong();
            entry.schedule = open.value(row, "schedule").toLongLong();
            entry.account = open.value(row, "owner").toLongLong();
            if (!failOne(entry))
                return false;
        }
        return true;
    });
}

bool JournalStore::failOne(const EntryRow& entry) {
    const SqlArgs which{{QStringLiteral("@id"), static_cast<qint64>(entry.broadcast)},
                        {QStringLiteral("@node"), m_node}};
    SqlArgs close = which;
    close.emplace_back(QStringLiteral("@reason"), ServiceEnded);
    close.emplace_back(QStringLiteral("@now"), entry.at);
    if (!m_database.run(CloseReceipts, close).ok)
        return false;
    const SqlResult counted = m_database.run(CountReceipts, which);
    if (!counted.ok)
        return false;
    ReceiptCounts counts{};
    int all = 0;
    for (int row = 0; row < counted.rows.size(); ++row) {
        const int count = counted.integer(row, "n");
        counts.at(static_cast<size_t>(counted.integer(row, "state")) % ReceiptStates) += count;
        all += count;
    }
    SqlArgs fail = close;
    fail.emplace_back(QStringLiteral("@all"), all);
    for (int state = 0; state < ReceiptStates; ++state)
        fail.emplace_back(QStringLiteral("@n%1").arg(state), counts.at(static_cast<size_t>(state)));
    // What became of a bell that was due is told by the task queue, once.
    const bool isDue = entry.kind == nameOf(Broadcast::Kind::Bell) && entry.due != 0;
    return m_database.run(Fail, fail).ok && (isDue || write(std::vector<EntryRow>{entry}));
}

// --- what is old ---

bool JournalStore::removeOld(int journalDays, int receiptDays) {
    return removeSome(QStringLiteral("receipt"), QStringLiteral("broadcast"), receiptDays) ||
           removeSome(QStringLiteral("broadcast"), QStringLiteral("id"), journalDays) ||
           removeSome(QStringLiteral("journal"), QStringLiteral("id"), journalDays);
}

/// Numbers tell their time: what is older has a lower one.
bool JournalStore::removeSome(const QString& table, const QString& key, int days) {
    if (days <= 0)
        return false;
    const qint64 since = QDateTime::currentDateTimeUtc().addDays(-days).toMSecsSinceEpoch();
    const bool isMysql = m_database.dialect() == SqlDialect::Mysql;
    const QString statement =
        isMysql
            ? QStringLiteral("DELETE FROM `%1` WHERE `%2` < ? LIMIT %3")
            : QStringLiteral("DELETE FROM `%1` WHERE `%2` IN (SELECT DISTINCT `%2` FROM `%1` WHERE `%2` < ? "
                             "ORDER BY `%2` LIMIT %3)");
    // On SQLite a receipt's key is its broadcast's: all of one at once.
    const bool isReceipt = table == QLatin1String("receipt");
    BoundSql bound;
    bound.text = statement.arg(table, key).arg(isReceipt && !isMysql ? 1 : RowsRemoved);
    bound.values << number(BroadcastNumbers::firstAt(since));
    const SqlResult removed = m_database.run(bound);
    return removed.ok && removed.affected > 0;
}
