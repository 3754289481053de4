// Broadcasts and their receipts, as the journal has them.
#include "rest/broadcasts.h"

#include "rest/broadcastobject.h"
#include "rest/resources.h"
#include "rest/restcall.h"
#include "rest/timestamp.h"
#include "service/playlog.h"

#include <algorithm>
#include <QJsonArray>

namespace {

using namespace std::chrono_literals;

/// What is happening is in the table before it is read, unless the database is slow.
constexpr auto Settling = 2s;
constexpr int ReceiptsAtOnce = 5000; ///< of a CSV file
constexpr int Kinds = 5;             ///< of broadcasts
constexpr int States = 5;
const auto Csv = QByteArrayLiteral("text/csv");

template<typename Kind>
QStringList names(int count) {
    QStringList all;
    for (int i = 0; i < count; ++i)
        all << nameOf(static_cast<Kind>(i));
    return all;
}

QStringList receiptStates() {
    return names<ReceiptState>(ReceiptStates);
}

QJsonValue orNull(const QVariant& text) {
    return text.toString().isEmpty() ? QJsonValue() : QJsonValue(text.toString());
}

/// The value that is stored under this name; the first when there is none.
template<typename Kind>
Kind valueOf(const QString& name, int count) {
    return static_cast<Kind>(std::max(0, names<Kind>(count).indexOf(name)));
}

Broadcast::Origin originOf(const SqlResult& rows, int row) {
    return {rows.value(row, "account").toLongLong(), rows.value(row, "schedule").toLongLong(),
            rows.value(row, "input").toLongLong(), rows.text(row, "line"), rows.text(row, "path")};
}

QJsonObject receiptJson(const SqlResult& rows, int row) {
    const qint64 by = rows.value(row, "by_broadcast").toLongLong();
    return {{QStringLiteral("serial"), rows.text(row, "serial")},
            {QStringLiteral("state"),
             nameOf(static_cast<ReceiptState>(rows.integer(row, "state") % ReceiptStates))},
            {QStringLiteral("reason"), orNull(rows.value(row, "reason"))},
            {QStringLiteral("by"), by == 0 ? QJsonValue() : QJsonValue(by)},
            {QStringLiteral("sent"), timestampOrNull(rows.value(row, "sent").toLongLong())},
            {QStringLiteral("started"), timestampOrNull(rows.value(row, "started").toLongLong())},
            {QStringLiteral("ended"), timestampOrNull(rows.value(row, "ended").toLongLong())}};
}

void settle(const RestCall& call) {
    if (Journal* const journal = call.services().journal)
        journal->settle(Settling);
}

RestAnswer listBroadcasts(RestCall& call) {
    const Page page = call.page();
    BroadcastQuery query;
    query.state = call.query().word("state", names<BroadcastState>(States)).value_or(QString());
    query.kind = call.query().word("kind", names<Broadcast::Kind>(Kinds)).value_or(QString());
    query.from = call.query().time("from").value_or(0);
    query.until = call.query().time("until").value_or(0);
    query.before = page.afterId();
    query.limit = page.wanted();
    if (!call.fits())
        return call.misfit();
    settle(call);
    const SqlResult rows = findBroadcasts(call.database(), call.caller(), query);
    return page.answer(rows, [&rows](int row) { return broadcastJson(rows, row); });
}

/// The broadcast's row, when the caller may see it.
std::optional<SqlResult> visibleRow(const RestCall& call) {
    settle(call);
    BroadcastQuery query;
    query.id = std::max<qint64>(call.id(), 1); // none has that, nor what is no number
    SqlResult rows = findBroadcasts(call.database(), call.caller(), query);
    return rows.ok ? std::optional(rows) : std::nullopt;
}

RestAnswer getBroadcast(RestCall& call) {
    if (!call.fits())
        return call.misfit();
    const auto rows = visibleRow(call);
    if (!rows)
        return unavailable();
    return rows->isEmpty() ? notFound() : ok(broadcastJson(*rows, 0));
}

QByteArray csvField(const QJsonValue& value) {
    QByteArray text = value.isString() ? value.toString().toUtf8()
                      : value.isNull() ? QByteArray()
                                       : QByteArray::number(value.toVariant().toLongLong());
    if (text.contains(',') || text.contains('"'))
        text = '"' + text.replace("\"", "\"\"") + '"';
    return text;
}

/// All of them, a piece after the other (RFC 4180).
RestAnswer receiptFile(RestCall& call, std::optional<int> state) {
    static const char* const columns[] = {"serial", "state", "reason", "by", "sent", "started", "ended"};
    QByteArray csv = "serial,state,reason,by,sent,started,ended\r\n";
    QString after;
    while (true) {
        const SqlResult rows =
            findReceipts(call.database(), call.caller(), call.id(), state, after, ReceiptsAtOnce);
        if (!rows.ok)
            return unavailable();
        for (int row = 0; row < rows.rows.size(); ++row) {
            const QJsonObject receipt = receiptJson(rows, row);
            for (const char* const column : columns)
                csv += csvField(receipt.value(QLatin1String(column))) + (column == columns[6] ? "\r\n" : ",");
        }
        if (rows.rows.size() < ReceiptsAtOnce)
            return bytesAnswer(Csv, csv);
        after = rows.text(rows.rows.size() - 1, "serial");
    }
}

RestAnswer listReceipts(RestCall& call) {
    const Page page = call.page();
    const auto word = call.query().word("state", receiptStates());
    if (!call.fits())
        return call.misfit();
    const auto broadcast = visibleRow(call);
    if (!broadcast)
        return unavailable();
    if (broadcast->isEmpty())
        return notFound();
    const std::optional<int> state = word ? std::optional(receiptStates().indexOf(*word)) : std::nullopt;
    if (call.header("Accept").contains(Csv))
        return receiptFile(call, state);
    const SqlResult rows =
        findReceipts(call.database(), call.caller(), call.id(), state, page.after, page.wanted());
    return page.answer(
        rows, [&rows](int row) { return receiptJson(rows, row); }, "serial");
}

} // namespace

QJsonObject broadcastJson(const SqlResult& rows, int row) {
    Journal::Standing standing;
    standing.id = static_cast<quint64>(rows.value(row, "id").toLongLong());
    Broadcast& broadcast = standing.broadcast;
    broadcast.kind = valueOf<Broadcast::Kind>(rows.text(row, "kind"), Kinds);
    broadcast.name = rows.text(row, "name");
    broadcast.priority = rows.integer(row, "priority");
    broadcast.origin = originOf(rows, row);
    broadcast.due = rows.value(row, "due").toLongLong();
    standing.state = valueOf<BroadcastState>(rows.text(row, "state"), States);
    standing.reason = rows.text(row, "reason");
    standing.started = rows.value(row, "started").toLongLong();
    standing.ended = rows.value(row, "ended").toLongLong();
    standing.targets = rows.integer(row, "targets");
    for (int state = 0; state < ReceiptStates; ++state)
        standing.counts.at(static_cast<size_t>(state)) =
            rows.integer(row, qPrintable(QStringLiteral("n_") + nameOf(static_cast<ReceiptState>(state))));
    return broadcastObject(standing);
}

void addBroadcastRoutes(RestRoutes& routes) {
    routes.add({
        {"GET",
         "/broadcasts",
         listBroadcasts,
         Who::Account,
         Paged,
         Takes::Nothing,
         {"state", "kind", "from", "until"}},
        {"GET", "/broadcasts/{id}", getBroadcast},
        {"GET", "/broadcasts/{id}/receipts", listReceipts, Who::Account, Paged, Takes::Nothing, {"state"}},
    });
}
