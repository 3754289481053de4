// Logging in and out, and the caller's own account.
#include "rest/accountjson.h"
#include "rest/resources.h"
#include "rest/restcall.h"
#include "rest/timestamp.h"
#include "service/accounts.h"
#include "service/loginbrake.h"
#include "service/tokens.h"

namespace {

RestAnswer login(RestCall& call) {
    const auto username = call.body().text("username", 1, LongestName);
    const auto password = call.body().text("password", 1, LongestPassword);
    call.body().need({"username", "password"});
    if (!call.fits())
        return call.misfit();
    LoginBrake& brake = *call.services().loginBrake;
    if (const auto wait = brake.wait(*username, call.address()); wait.count() > 0)
        return later(429, QStringLiteral("too many wrong passwords"), wait);
    const auto login = accountsOf(call).login(call.database(), *username, *password);
    if (!login.isKnown)
        return unavailable();
    if (!login.caller) {
        brake.failed(*username, call.address());
        return problem(401, QStringLiteral("no account with this name and password"))
            .header("WWW-Authenticate", "Bearer");
    }
    brake.succeeded(*username, call.address());
    const auto token = call.services().tokens->make(call.database(), login.caller->account);
    if (!token)
        return unavailable();
    call.setCaller(*login.caller);
    QJsonObject account = callerJson(*login.caller);
    account.remove(QStringLiteral("master"));
    return ok({{QStringLiteral("token"), QString::fromLatin1(token->text)},
               {QStringLiteral("expires"), timestamp(token->expires)},
               {QStringLiteral("account"), account}});
}

RestAnswer logout(RestCall& call) {
    return call.services().tokens->voidOne(call.database(), call.caller()) ? noContent() : unavailable();
}

RestAnswer getMe(RestCall& call) {
    return ok(callerJson(call.caller()));
}

RestAnswer patchMe(RestCall& call) {
    AccountChange change;
    change.name = call.body().text("name", 1, LongestName);
    if (call.body().isNull("name"))
        call.body().refuse("name", QStringLiteral("must not be null"));
    if (!call.fits())
        return call.misfit();
    const Outcome outcome = accountsOf(call).change(call.database(), call.caller().account, change);
    if (outcome != Outcome::Done)
        return refusalFor(outcome);
    Caller caller = call.caller();
    caller.name = change.name.value_or(caller.name);
    return ok(callerJson(caller));
}

RestAnswer changePassword(RestCall& call) {
    const auto old = call.body().text("old", 1, LongestPassword);
    AccountChange change;
    change.password = call.body().text("new", ShortestPassword, LongestPassword);
    call.body().need({"old", "new"});
    if (!call.fits())
        return call.misfit();
    LoginBrake& brake = *call.services().loginBrake;
    const Caller& caller = call.caller();
    if (const auto wait = brake.wait(caller.username, call.address()); wait.count() > 0)
        return later(429, QStringLiteral("too many wrong passwords"), wait);
    const auto login = accountsOf(call).login(call.database(), caller.username, *old);
    if (!login.isKnown)
        return unavailable();
    if (!login.caller) {
        brake.failed(caller.username, call.address());
        return problem(403, QStringLiteral("the old password is wrong"));
    }
    const Outcome outcome = accountsOf(call).change(call.database(), caller.account, change, caller.token);
    return outcome == Outcome::Done ? noContent() : refusalFor(outcome);
}

} // namespace

void addSessionRoutes(RestRoutes& routes) {
    routes.add({
        {"POST", "/login", login, Who::Anybody, Secret | Hashes, Takes::Object},
        {"POST", "/logout", logout, Who::Account},
        {"GET", "/me", getMe, Who::Account},
        {"PATCH", "/me", patchMe, Who::Account, 0, Takes::Object},
        {"POST", "/me/password", changePassword, Who::Account, Secret | Hashes, Takes::Object},
    });
}
