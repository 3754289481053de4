// The audit log.
#include "rest/resources.h"
#include "rest/restcall.h"
#include "rest/timestamp.h"
#include "service/audit.h"

#include <limits>

namespace {

QJsonObject lineJson(const SqlResult& rows, int row) {
    return {{QStringLiteral("id"), rows.value(row, "id").toLongLong()},
            {QStringLiteral("at"), timestamp(rows.value(row, "at").toLongLong())},
            {QStringLiteral("account"), rows.integer(row, "account")},
            {QStringLiteral("address"), rows.text(row, "address")},
            {QStringLiteral("action"), rows.text(row, "action")},
            {QStringLiteral("object"), rows.text(row, "object")},
            {QStringLiteral("detail"), rows.text(row, "detail")}};
}

RestAnswer listAudit(RestCall& call) {
    constexpr qint64 latest = std::numeric_limits<qint64>::max();
    const Page page = call.page();
    AuditQuery query;
    query.from = call.query().time("from").value_or(0);
    query.until = call.query().time("until").value_or(latest);
    query.account = call.query().id("account").value_or(0);
    query.of = call.caller().isAdmin ? 0 : call.caller().account;
    query.before = page.afterId(latest);
    query.limit = page.wanted();
    if (!call.fits())
        return call.misfit();
    const SqlResult rows = findAudit(call.database(), query);
    return page.answer(rows, [&rows](int row) { return lineJson(rows, row); });
}

} // namespace

void addAuditRoutes(RestRoutes& routes) {
    routes.add(
        {{"GET", "/audit", listAudit, Who::Account, Paged, Takes::Nothing, {"from", "until", "account"}}});
}
