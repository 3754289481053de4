#include "rest/accountjson.h"

#include "rest/restcall.h"
#include "rest/timestamp.h"

namespace {

QJsonObject fields(qint64 id, const QString& username, const QString& name, bool isAdmin, qint64 master) {
    return {{QStringLiteral("id"), id},
            {QStringLiteral("username"), username},
            {QStringLiteral("name"), name},
            {QStringLiteral("role"), isAdmin ? QStringLiteral("admin") : QStringLiteral("owner")},
            {QStringLiteral("master"), master == 0 ? QJsonValue() : QJsonValue(master)}};
}

} // namespace

QJsonObject callerJson(const Caller& caller) {
    return fields(caller.account, caller.username, caller.name, caller.isAdmin, caller.master);
}

QJsonObject accountJson(const AccountInfo& account) {
    QJsonObject object = fields(account.id, account.username, account.name, account.isAdmin, account.master);
    object.insert(QStringLiteral("created"), timestampOrNull(account.created));
    return object;
}

RestAnswer refusalFor(Outcome outcome) {
    switch (outcome) {
    case Outcome::Done:
        break;
    case Outcome::Gone:
        return notFound();
    case Outcome::Taken:
        return problem(409, QStringLiteral("another account has this name"));
    case Outcome::LastAdmin:
        return problem(409, QStringLiteral("no administrator would be left"));
    case Outcome::Failed:
        return unavailable();
    }
    return noContent();
}

Accounts accountsOf(const RestCall& call) {
    const Services& services = call.services();
    return {*services.passwords, *services.tokens, *services.oldTokens};
}
