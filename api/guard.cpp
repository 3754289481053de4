#include "api/guard.h"

#include "api/call.h"
#include "api/plankeys.h"
#include "api/requestmapper.h"
#include "api/strictsql.h"
#include "device/severinit.h"

#include <algorithm>

namespace {
constexpr int AdministratorLevel = 1;

bool isComplete(const Guard& guard, Call& call, const StrictSql& database) {
    const By by = guard.auth.by;
    if (by == By::Token || by == By::LooseToken || (by == By::SafeToken && database.site.tokenpaths))
        return call.require(guard.required, guard.missing);
    return std::all_of(guard.required.begin(), guard.required.end(),
                       [&](const char* name) { return call.has(name); }) ||
           call.refuse(refusal(QLatin1String(guard.missing)));
}

bool hasPayKey(const Call& call, const StrictSql& database) {
    return call.raw("sskey") == database.site.payKey;
}

bool isAuthenticated(const Auth& auth, Call& call, const StrictSql& database, const Severinit& devices) {
    const sqlite::Site& site = database.site;
    const auto holds = [&](bool isHeld) {
        return isHeld || call.refuse(refusal(QLatin1String(auth.word), auth.code));
    };
    switch (auth.by) {
    case By::Anybody:
        break;
    case By::Token:
        return call.authenticate(auth.word);
    case By::LooseToken:
        return call.authenticateLoosely();
    case By::SafeToken:
        return !site.tokenpaths || call.authenticate(auth.word);
    case By::SafeUserToken:
        return !site.tokenpaths || (!site.payKey.isEmpty() && hasPayKey(call, database)) ||
               call.authenticateAs(call.number("userid"), auth.word);
    case By::ServiceKey:
        return holds(devices.matchesServiceKey(call.raw("sskey")));
    case By::PayKey:
        return holds(site.payKey.isEmpty() || hasPayKey(call, database));
    case By::PlanKey: {
        const PlanKeys* keys = call.router().planKeys();
        return holds(!keys || call.text("key") == keys->of(call.number("pltid")));
    }
    }
    return true;
}

bool hasRole(const Guard& guard, Call& call, const StrictSql& database) {
    if (!(guard.demands & Administrator) || !database.site.adminpictures)
        return true;
    const SqlResult account =
        database.run(QStringLiteral("SELECT `user_level` FROM  sbox_users where ( `id` = '@userid' );"),
                     {{QStringLiteral("@userid"), call.userid()}});
    return account.integer(0, "user_level") == AdministratorLevel ||
           call.refuse(refusal(QStringLiteral("ER_REJECT")));
}

bool isFit(const Guard& guard, Call& call) {
    const QByteArray unfit = guard.unfit ? guard.unfit(call) : QByteArray();
    return unfit.isEmpty() || call.refuse(unfit);
}
} // namespace

bool passes(const Guard& guard, Call& call, const StrictSql& database, const Severinit& devices) {
    if ((guard.demands & WithFile) && !call.file())
        return call.refuse(refusal(QStringLiteral("NoFile in FormData")));
    return isComplete(guard, call, database) && isFit(guard, call) &&
           isAuthenticated(guard.auth, call, database, devices) && hasRole(guard, call, database);
}
