// Rights to one group that its owner gives to others.
#include "service/grants.h"
#include "rest/resources.h"
#include "rest/restcall.h"

#include <limits>

namespace {

const QString Operator = QStringLiteral("operator");
const QString Viewer = QStringLiteral("viewer");

QJsonObject grantJson(qint64 id, qint64 account, qint64 group, GroupRole role) {
    return {{QStringLiteral("id"), id},
            {QStringLiteral("account"), account},
            {QStringLiteral("group"), group},
            {QStringLiteral("role"), role == GroupRole::Operator ? Operator : Viewer}};
}

QJsonObject grantAt(const SqlResult& rows, int row) {
    return grantJson(rows.integer(row, "id"), rows.integer(row, "account"), rows.integer(row, "gid"),
                     static_cast<GroupRole>(rows.integer(row, "role")));
}

RestAnswer listAll(RestCall& call) {
    const Page page = call.page();
    if (!call.fits())
        return call.misfit();
    const SqlResult rows = listGrants(call.database(), call.caller(), page.afterId(), page.wanted());
    return page.answer(rows, [&rows](int row) { return grantAt(rows, row); });
}

RestAnswer unfit(RestCall& call, const char* name, const QString& detail) {
    call.body().refuse(name, detail);
    return call.misfit();
}

RestAnswer refusalOf(RestCall& call, GrantOutcome outcome) {
    switch (outcome) {
    case GrantOutcome::Done:
        break;
    case GrantOutcome::NoAccount:
        return unfit(call, "account", QStringLiteral("there is no such account"));
    case GrantOutcome::NoGroup:
        return unfit(call, "group", QStringLiteral("there is no such group"));
    case GrantOutcome::OwnGroup:
        return unfit(call, "account", QStringLiteral("owns the group"));
    case GrantOutcome::NotOwner:
        return problem(403, QStringLiteral("rights to a group are its owner's to give"));
    case GrantOutcome::Exists:
        return problem(409, QStringLiteral("the account has a right to this group"));
    case GrantOutcome::Failed:
        return unavailable();
    }
    return noContent();
}

RestAnswer addOne(RestCall& call) {
    constexpr qint64 largest = std::numeric_limits<int>::max();
    const auto account = call.body().integer("account", 1, largest);
    const auto group = call.body().integer("group", 1, largest);
    const auto word = call.body().word("role", {Operator, Viewer});
    call.body().need({"account", "group", "role"});
    if (!call.fits())
        return call.misfit();
    const GroupRole role = *word == Operator ? GroupRole::Operator : GroupRole::Viewer;
    qint64 id = 0;
    const GrantOutcome outcome = addGrant(call.database(), call.caller(), *account, *group, role, id);
    if (outcome != GrantOutcome::Done)
        return refusalOf(call, outcome);
    call.note(QStringLiteral("account %1 %2 of group %3").arg(*account).arg(*word).arg(*group));
    return created(QStringLiteral("/grants/%1").arg(id), grantJson(id, *account, *group, role));
}

RestAnswer deleteOne(RestCall& call) {
    if (!call.fits())
        return call.misfit();
    const SqlResult found = findGrant(call.database(), call.caller(), call.id());
    if (!found.ok || found.isEmpty())
        return found.ok ? notFound() : unavailable();
    if (!call.caller().isAdmin && found.integer(0, "owner") != call.caller().account)
        return refusalOf(call, GrantOutcome::NotOwner);
    call.note(
        QStringLiteral("account %1, group %2").arg(found.integer(0, "account")).arg(found.integer(0, "gid")));
    return removeGrant(call.database(), call.id()) ? noContent() : unavailable();
}

} // namespace

void addGrantRoutes(RestRoutes& routes) {
    routes.add({
        {"GET", "/grants", listAll, Who::Account, Paged},
        {"POST", "/grants", addOne, Who::Account, Renames, Takes::Object},
        {"DELETE", "/grants/{id}", deleteOne, Who::Account, Renames},
    });
}
