// Accounts and who manages them: administrators all, an owner its sub-accounts.
#include "rest/accountjson.h"
#include "rest/resources.h"
#include "rest/restcall.h"

namespace {

const QString Admin = QStringLiteral("admin");
const QString Owner = QStringLiteral("owner");

/// Reads what the body says of an account; what may not be null is noted.
AccountChange readAccount(RestCall& call) {
    const Fields& body = call.body();
    AccountChange change;
    change.username = body.text("username", 1, LongestName);
    change.name = body.text("name", 1, LongestName);
    change.password = body.text("password", ShortestPassword, LongestPassword);
    const auto role = body.word("role", {Admin, Owner});
    if (role)
        change.isAdmin = *role == Admin;
    if (change.username && change.username->trimmed() != *change.username)
        body.refuse("username", QStringLiteral("must not begin or end with a blank"));
    for (const char* name : {"username", "name", "password", "role"}) {
        if (body.isNull(name))
            body.refuse(name, QStringLiteral("must not be null"));
    }
    return change;
}

/// Only administrators make others; nothing when the caller may do what it asks for.
std::optional<RestAnswer> refusedRole(const RestCall& call, const AccountChange& change) {
    if (call.caller().isAdmin || !change.isAdmin.value_or(false))
        return std::nullopt;
    return problem(403, QStringLiteral("only an administrator makes administrators"));
}

RestAnswer listAccounts(RestCall& call) {
    const Page page = call.page();
    if (!call.fits())
        return call.misfit();
    const SqlResult rows = Accounts::list(call.database(), call.caller(), page.afterId(), page.wanted());
    return page.answer(rows, [&rows](int row) { return accountJson(accountAt(rows, row)); });
}

RestAnswer accountAnswer(const RestCall& call, qint64 id) {
    const SqlResult rows = Accounts::find(call.database(), call.caller(), id);
    if (!rows.ok)
        return unavailable();
    return rows.isEmpty() ? notFound() : ok(accountJson(accountAt(rows, 0)));
}

RestAnswer addAccount(RestCall& call) {
    const AccountChange account = readAccount(call);
    call.body().need({"username", "password"});
    if (!call.fits())
        return call.misfit();
    if (const auto refused = refusedRole(call, account))
        return *refused;
    const qint64 master = call.caller().isAdmin ? 0 : call.caller().account;
    qint64 id = 0;
    const Outcome outcome = accountsOf(call).add(call.database(), account, master, id);
    if (outcome != Outcome::Done)
        return refusalFor(outcome);
    call.note(*account.username);
    const RestAnswer answer = accountAnswer(call, id);
    return answer.isSuccess() ? created(QStringLiteral("/accounts/%1").arg(id), answer.json) : answer;
}

RestAnswer getAccount(RestCall& call) {
    return call.fits() ? accountAnswer(call, call.id()) : call.misfit();
}

/// What was changed, for the audit log; a password is named only.
QString changedFields(const AccountChange& change) {
    QStringList fields;
    if (change.username)
        fields += QStringLiteral("username ") + *change.username;
    if (change.name)
        fields += QStringLiteral("name ") + *change.name;
    if (change.isAdmin)
        fields += QStringLiteral("role ") + (*change.isAdmin ? Admin : Owner);
    if (change.password)
        fields += QStringLiteral("password");
    return fields.join(QLatin1String(", "));
}

RestAnswer patchAccount(RestCall& call) {
    RestAnswer found = accountAnswer(call, call.id());
    if (!found.isSuccess())
        return found;
    const AccountChange change = readAccount(call);
    if (!call.fits())
        return call.misfit();
    if (const auto refused = refusedRole(call, change))
        return *refused;
    const Outcome outcome = accountsOf(call).change(call.database(), call.id(), change);
    if (outcome != Outcome::Done)
        return refusalFor(outcome);
    call.note(changedFields(change));
    return accountAnswer(call, call.id());
}

/// What it had becomes its master's, that of an account without one the administrator's who deletes it.
RestAnswer deleteAccount(RestCall& call) {
    if (!call.fits())
        return call.misfit();
    const SqlResult rows = Accounts::find(call.database(), call.caller(), call.id());
    if (!rows.ok || rows.isEmpty())
        return rows.ok ? notFound() : unavailable();
    const AccountInfo account = accountAt(rows, 0);
    if (account.id == call.caller().account)
        return problem(409, QStringLiteral("nobody deletes its own account"));
    const qint64 heir = account.master > 0 ? account.master : call.caller().account;
    const Outcome outcome = accountsOf(call).remove(call.database(), account.id, heir);
    call.note(account.username);
    return outcome == Outcome::Done ? noContent() : refusalFor(outcome);
}

} // namespace

void addAccountRoutes(RestRoutes& routes) {
    routes.add({
        {"GET", "/accounts", listAccounts, Who::Account, Paged},
        {"POST", "/accounts", addAccount, Who::Account, Hashes, Takes::Object},
        {"GET", "/accounts/{id}", getAccount, Who::Account},
        {"PATCH", "/accounts/{id}", patchAccount, Who::Account, Hashes | Renames, Takes::Object},
        {"DELETE", "/accounts/{id}", deleteAccount, Who::Account, Renames},
    });
}
