// What happened: bells, broadcasts, speakers, the service and its links.
#include "rest/journal.h"

#include "journal/journal.h"
#include "rest/resources.h"
#include "rest/restcall.h"
#include "rest/timestamp.h"
#include "service/playlog.h"

namespace {

using namespace std::chrono_literals;

constexpr auto Settling = 2s;

const QStringList& kinds() {
    static const QStringList all{QStringLiteral("bell"),    QStringLiteral("announcement"),
                                 QStringLiteral("live"),    QStringLiteral("alarm"),
                                 QStringLiteral("direct"),  QStringLiteral("speaker"),
                                 QStringLiteral("service"), QStringLiteral("link")};
    return all;
}

QJsonValue numberOrNull(qint64 number) {
    return number == 0 ? QJsonValue() : QJsonValue(number);
}

QJsonValue textOrNull(const QString& text) {
    return text.isEmpty() ? QJsonValue() : QJsonValue(text);
}

RestAnswer listEntries(RestCall& call) {
    const Page page = call.page();
    EntryQuery query;
    query.state = call.query().text("state", 32).value_or(QString());
    query.kind = call.query().word("kind", kinds()).value_or(QString());
    query.from = call.query().time("from").value_or(0);
    query.until = call.query().time("until").value_or(0);
    query.before = page.afterId();
    query.limit = page.wanted();
    if (!call.fits())
        return call.misfit();
    if (Journal* const journal = call.services().journal)
        journal->settle(Settling);
    const SqlResult rows = findEntries(call.database(), call.caller(), query);
    return page.answer(rows, [&rows](int row) { return entryJson(rows, row); });
}

} // namespace

QJsonObject entryJson(const SqlResult& rows, int row) {
    const qint64 due = rows.value(row, "due").toLongLong();
    const bool isBell = rows.text(row, "kind") == QLatin1String("bell");
    const QJsonValue late = isBell ? QJsonValue(rows.value(row, "late").toLongLong() / 1000) : QJsonValue();
    return {{QStringLiteral("id"), rows.value(row, "id").toLongLong()},
            {QStringLiteral("at"), timestamp(rows.value(row, "at").toLongLong())},
            {QStringLiteral("kind"), rows.text(row, "kind")},
            {QStringLiteral("state"), rows.text(row, "state")},
            {QStringLiteral("name"), textOrNull(rows.text(row, "name"))},
            {QStringLiteral("reason"), textOrNull(rows.text(row, "reason"))},
            {QStringLiteral("due"), timestampOrNull(due)},
            {QStringLiteral("late"), late},
            {QStringLiteral("broadcast"), numberOrNull(rows.value(row, "broadcast").toLongLong())},
            {QStringLiteral("schedule"), numberOrNull(rows.value(row, "schedule").toLongLong())},
            {QStringLiteral("serial"), textOrNull(rows.text(row, "serial"))}};
}

void addJournalRoutes(RestRoutes& routes) {
    routes.add({{"GET",
                 "/journal",
                 listEntries,
                 Who::Account,
                 Paged,
                 Takes::Nothing,
                 {"from", "until", "kind", "state"}}});
}
