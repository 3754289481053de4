// Tokens for programs.
#include "core/sql/sqlite.h"
#include "rest/accountjson.h"
#include "rest/resources.h"
#include "rest/restcall.h"
#include "rest/timestamp.h"
#include "service/tokens.h"

#include <QDateTime>

namespace {

QJsonObject tokenJson(qint64 id, const QString& name, qint64 created, qint64 expires) {
    return {{QStringLiteral("id"), id},
            {QStringLiteral("name"), name},
            {QStringLiteral("created"), timestamp(created)},
            {QStringLiteral("expires"), timestampOrNull(expires)}};
}

RestAnswer listTokens(RestCall& call) {
    const Page page = call.page();
    if (!call.fits())
        return call.misfit();
    const SqlResult rows =
        call.services().tokens->list(call.database(), call.caller().account, page.afterId(), page.wanted());
    return page.answer(rows, [&rows](int row) {
        return tokenJson(rows.integer(row, "id"), rows.text(row, "name"),
                         rows.value(row, "created").toLongLong(), rows.value(row, "expires").toLongLong());
    });
}

RestAnswer addToken(RestCall& call) {
    const auto name = call.body().text("name", 1, LongestName);
    const auto expires = call.body().time("expires");
    call.body().need({"name"});
    const qint64 now = QDateTime::currentMSecsSinceEpoch();
    if (expires && *expires <= now)
        call.body().refuse("expires", QStringLiteral("must be to come"));
    if (!call.fits())
        return call.misfit();
    const auto token =
        call.services().tokens->makeNamed(call.database(), call.caller().account, *name, expires.value_or(0));
    if (!token)
        return unavailable();
    call.note(*name);
    QJsonObject object = tokenJson(token->id, *name, now, token->expires);
    object.insert(QStringLiteral("token"), QString::fromLatin1(token->text));
    return created(QStringLiteral("/tokens/%1").arg(token->id), object);
}

RestAnswer deleteToken(RestCall& call) {
    if (!call.fits())
        return call.misfit();
    const SqlResult voided =
        call.services().tokens->voidNamed(call.database(), call.caller().account, call.id());
    if (!voided.ok)
        return unavailable();
    return voided.affected > 0 ? noContent() : notFound();
}

} // namespace

void addTokenRoutes(RestRoutes& routes) {
    routes.add({
        {"GET", "/tokens", listTokens, Who::Account, Paged},
        {"POST", "/tokens", addToken, Who::Account, Secret, Takes::Object},
        {"DELETE", "/tokens/{id}", deleteToken, Who::Account},
    });
}
