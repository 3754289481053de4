#include "rest/restroutes.h"
#include "support/service.h"
#include "support/table.h"
#include "support/testmain.h"

#include <QCryptographicHash>
#include <QJsonDocument>

namespace {

constexpr char Password[] = "correct horse";
const QList<QByteArray> Callers{"nobody", "viewer", "operator", "owner", "other", "admin"};

/// A token as the service would have made it, of the account with that name.
QByteArray tokenOf(const QByteArray& name) {
    return name.leftJustified(43, '_');
}

QByteArray credentials(const QByteArray& name, const QByteArray& password) {
    return "{\"username\":\"" + name + "\",\"password\":\"" + password + "\"}";
}

/// What a route answers to each of the callers, in their order. "{..}" in the body are numbers of objects.
struct Policy {
    const char* route;
    const char* statuses;
    const char* path = nullptr; ///< with numbers in it; null: the route's own
    QByteArray body = {};
};

constexpr char SpeakerPath[] = "/speakers/aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa";

/// Every route of the table has its row here: who may what. A route without one fails.
const QList<Policy> Policies{
    {"GET /openapi.json", "200 200 200 200 200 200"},
    {"POST /login", "200 200 200 200 200 200", nullptr, R"({"username":"owner","password":"correct horse"})"},
    {"POST /logout", "401 204 204 204 204 204"},
    {"GET /me", "401 200 200 200 200 200"},
    {"PATCH /me", "401 200 200 200 200 200", nullptr, R"({"name":"x"})"},
    {"POST /me/password", "401 204 204 204 204 204", nullptr,
     R"({"old":"correct horse","new":"battery staple"})"},
    {"GET /tokens", "401 200 200 200 200 200"},
    {"POST /tokens", "401 201 201 201 201 201", nullptr, R"({"name":"x"})"},
    {"DELETE /tokens/{id}", "401 404 404 204 404 404", "/tokens/50"},
    {"GET /accounts", "401 200 200 200 200 200"},
    {"POST /accounts", "401 201 201 201 201 201", nullptr,
     R"({"username":"new","password":"battery staple"})"},
    {"GET /accounts/{id}", "401 404 404 200 404 200", "/accounts/16"},
    {"PATCH /accounts/{id}", "401 404 404 200 404 200", "/accounts/16", R"({"name":"x"})"},
    {"DELETE /accounts/{id}", "401 404 404 204 404 204", "/accounts/16"},
    {"GET /grants", "401 200 200 200 200 200"},
    {"POST /grants", "401 403 403 201 422 201", nullptr, R"({"account":16,"group":70,"role":"viewer"})"},
    {"DELETE /grants/{id}", "401 403 404 204 404 204", "/grants/60"},
    {"GET /about", "401 200 200 200 200 200"},
    {"GET /audit", "401 200 200 200 200 200"},
    {"GET /speakers", "401 200 200 200 200 200"},
    {"POST /speakers", "401 201 201 201 201 201", nullptr,
     R"({"serial":"cccccccccccccccccccccccccccccccc","name":"x"})"},
    {"POST /speakers/volume", "401 422 202 202 422 202", nullptr,
     R"({"targets":{"speakers":["aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa"]},"volume":5})"},
    {"GET /speakers/{serial}", "401 200 200 200 404 200", SpeakerPath},
    {"PATCH /speakers/{serial}", "401 403 403 200 404 200", SpeakerPath, R"({"name":"x"})"},
    {"DELETE /speakers/{serial}", "401 403 403 204 404 204", SpeakerPath},
    {"GET /groups", "401 200 200 200 200 200"},
    {"POST /groups", "401 201 201 201 201 201", nullptr, R"({"name":"x"})"},
    {"GET /groups/{id}", "401 200 200 200 404 200", "/groups/70"},
    {"PATCH /groups/{id}", "401 403 403 200 404 200", "/groups/70", R"({"name":"x"})"},
    {"DELETE /groups/{id}", "401 403 403 204 404 204", "/groups/70"},
    {"GET /groups/{id}/speakers", "401 200 200 200 404 200", "/groups/70/speakers"},
    {"GET /sounds", "401 200 200 200 200 200"},
    {"POST /sounds", "401 422 422 422 422 422", "/sounds?name=x", "no sound"},
    {"POST /sounds/speech", "401 422 422 422 422 422", nullptr, R"({"text":" "})"},
    {"GET /sounds/{id}", "401 404 200 200 404 200", "/sounds/90"},
    {"PATCH /sounds/{id}", "401 404 403 200 404 200", "/sounds/90", R"({"name":"x"})"},
    {"DELETE /sounds/{id}", "401 404 403 204 404 204", "/sounds/90"},
    {"GET /voices", "401 200 200 200 200 200"},
    {"GET /broadcasts", "401 200 200 200 200 200"},
    {"GET /broadcasts/{id}", "401 200 200 200 404 200", "/broadcasts/7000"},
    {"GET /broadcasts/{id}/receipts", "401 200 200 200 404 200", "/broadcasts/7000/receipts"},
    {"POST /broadcasts", "401 422 201 201 422 201", nullptr,
     R"({"targets":{"groups":[70]},"play":[{"url":"http://192.0.2.1/a.mp3"}]})"},
    {"POST /broadcasts/{id}/stop", "401 403 202 202 404 202", "/broadcasts/7000/stop"},
    {"POST /broadcasts/{id}/repeat", "401 403 403 403 404 409", "/broadcasts/7000/repeat"},
    {"GET /journal", "401 200 200 200 200 200"},
    {"GET /schedules", "401 200 200 200 200 200"},
    {"POST /schedules", "401 422 201 201 422 201", nullptr,
     R"({"name":"x","time":"08:00:00","sounds":[90],"targets":{"groups":[70]}})"},
    {"GET /schedules/upcoming", "401 200 200 200 200 200"},
    {"GET /schedules/{id}", "401 404 404 200 404 200", "/schedules/100"},
    {"PATCH /schedules/{id}", "401 404 404 200 404 200", "/schedules/100", R"({"name":"x"})"},
    {"DELETE /schedules/{id}", "401 404 404 204 404 204", "/schedules/100"},
    {"POST /schedules/{id}/start", "401 404 404 202 404 202", "/schedules/100/start"},
    {"POST /schedules/{id}/stop", "401 404 404 202 404 202", "/schedules/100/stop"},
    {"GET /plans", "401 200 200 200 200 200"},
    {"POST /plans", "401 201 201 201 201 201", nullptr, R"({"name":"x"})"},
    {"GET /plans/{id}", "401 404 404 200 404 200", "/plans/110"},
    {"PATCH /plans/{id}", "401 404 404 200 404 200", "/plans/110", R"({"name":"x"})"},
    {"DELETE /plans/{id}", "401 404 404 204 404 204", "/plans/110"},
    {"GET /calendars", "401 200 200 200 200 200"},
    {"POST /calendars", "401 201 201 201 201 201", nullptr, R"({"name":"x"})"},
    {"GET /calendars/{id}", "401 404 404 200 404 200", "/calendars/120"},
    {"PATCH /calendars/{id}", "401 404 404 200 404 200", "/calendars/120", R"({"name":"x"})"},
    {"DELETE /calendars/{id}", "401 404 404 204 404 204", "/calendars/120"},
    {"GET /calendars/{id}/entries", "401 404 404 200 404 200", "/calendars/120/entries"},
    {"POST /calendars/{id}/entries", "401 404 404 201 404 201", "/calendars/120/entries",
     R"({"name":"x","from":"2026-12-24","until":"2026-12-24"})"},
    {"GET /calendars/{id}/entries/{entry}", "401 404 404 200 404 200", "/calendars/120/entries/130"},
    {"PATCH /calendars/{id}/entries/{entry}", "401 404 404 200 404 200", "/calendars/120/entries/130",
     R"({"name":"x"})"},
    {"DELETE /calendars/{id}/entries/{entry}", "401 404 404 204 404 204", "/calendars/120/entries/130"},
    {"POST /calendars/{id}/import", "401 415 415 415 415 415", "/calendars/120/import", "{}"},
    {"GET /calendars/{id}/export", "401 404 404 200 404 200", "/calendars/120/export"},
};

} // namespace

/// Accounts, tokens, roles and the conventions of the interface v1 on the wire.
class RestAccountsTest : public QObject {
    Q_OBJECT
private slots:
    void initTestCase() {
        ServiceOptions options;
        options.settings = {{"hashpasswords", true},
                            {"weborigins", "console.example"},
                            {"journaldays", 0}, // its rows here have low numbers, which are old
                            {"receiptdays", 0}};
        m_service = std::make_unique<Service>(options);
        QVERIFY(m_service->start());
    }
    void cleanupTestCase() { m_service.reset(); }
    void init() { reset(); }

    void everyRouteHasItsPolicy() {
        for (const RestRoute& route : RestRoutes::all().rows()) {
            const QByteArray name = QByteArray(route.method) + ' ' + route.path;
            const auto policy = std::find_if(Policies.begin(), Policies.end(),
                                             [&](const Policy& row) { return name == row.route; });
            QVERIFY2(policy != Policies.end(), name);
            QByteArrayList statuses;
            for (const QByteArray& caller : Callers) {
                reset();
                statuses += QByteArray::number(
                    ask(caller, route.method, policy->path ? policy->path : route.path, policy->body).status);
            }
            QVERIFY2(statuses.join(' ') == policy->statuses, name + ": " + statuses.join(' '));
        }
    }

    void listsHoldWhatTheCallerMaySee_data() {
        const Table<QByteArray, QByteArray, QByteArray> row{"caller", "path", "ids"};
        row("all accounts", "admin", "/accounts", "11,12,13,14,15,16");
        row("sub-accounts", "owner", "/accounts", "16");
        row("none", "other", "/accounts", "");
        row("given", "owner", "/grants", "60,61");
        row("received", "viewer", "/grants", "60");
        row("others' grants", "other", "/grants", "");
        row("tokens", "owner", "/tokens", "50");
        row("others' tokens", "admin", "/tokens", "");
        row("own groups", "owner", "/groups", "70");
        row("groups to see", "viewer", "/groups", "70");
        row("others' groups", "other", "/groups", "");
        row("sounds to play", "operator", "/sounds", "90");
        row("sounds of what is only seen", "viewer", "/sounds", "");
        row("heard in the group", "viewer", "/broadcasts", "7000");
        row("heard by nobody of his", "other", "/broadcasts", "");
        row("own schedules, speakers", "owner", "/journal", "7103,7102,7100");
        row("the group's", "operator", "/journal", "7103,7102");
        row("bells", "owner", "/journal?kind=bell&state=late", "7100");
    }
    void listsHoldWhatTheCallerMaySee() {
        QFETCH(QByteArray, caller);
        QFETCH(QByteArray, path);
        QByteArrayList ids;
        QString next; // one at a time, and what was told goes meanwhile
        do {
            const QString query = (path.contains('?') ? "&limit=1" : "?limit=1") +
                                  (next.isEmpty() ? QString() : "&cursor=" + next);
            const QJsonObject page = ask(caller, "GET", path + query.toUtf8()).json();
            for (const auto item : page["items"].toArray())
                ids += QByteArray::number(item.toObject()["id"].toInt());
            next = page["next"].toString();
        } while (!next.isEmpty());
        QTEST(ids.join(','), "ids");
    }

    /// Of a broadcast that is another's only the speakers that the caller may see count.
    void receiptsAreOfVisibleSpeakers() {
        for (const auto& [caller, count] : {std::pair{"viewer", 1}, {"owner", 2}, {"admin", 3}}) {
            const QJsonObject counts = ask(caller, "GET", "/broadcasts/7000").json()["counts"].toObject();
            QCOMPARE(counts["completed"].toInt(), count);
            QCOMPARE(counts["targets"].toInt(), count);
            const HttpReply csv = m_service->http().request(
                "GET", "/api/v1/broadcasts/7000/receipts", {},
                {{"Authorization", "Bearer " + tokenOf(caller)}, {"Accept", "text/csv"}});
            QCOMPARE(csv.body.count("\r\n"), count + 1);
            QVERIFY(csv.body.startsWith("serial,state,reason,by,sent,started,ended\r\n" +
                                        QByteArray(31, '0') + "1,completed,\"so, \"\"done\"\"\",,"));
        }
        QCOMPARE(ask("admin", "GET", "/broadcasts/7000/receipts?state=lost").json()["items"].toArray().size(),
                 0);
    }

    void conventions_data() {
        const Table<QByteArray, QByteArray, QByteArray, QByteArray, int, QByteArray> row{
            "method", "path", "type", "body", "status", "told"};
        const QByteArray json = "application/json";
        row("no such path", "GET", "/nothing", "", "", 404, "");
        row("wrong method", "PUT", "/me", json, "{}", 405, "");
        row("options", "OPTIONS", "/me", "", "", 204, "");
        row("no JSON", "PATCH", "/me", json, "{\"name\":", 400, "");
        row("not UTF-8", "PATCH", "/me", json, "{\"name\":\"\xff\"}", 400, "");
        row("empty body", "PATCH", "/me", json, "", 400, "");
        row("a list", "PATCH", "/me", json, "[]", 422, "");
        row("a form", "PATCH", "/me", "application/x-www-form-urlencoded", "name=x", 415, "");
        row("malformed form", "PATCH", "/me", "application/x-www-form-urlencoded", "name=%zz", 400, "");
        row("too large", "PATCH", "/me", json, QByteArray(2'000'001, ' '), 413, "");
        row("mistyped key", "PATCH", "/me", json, R"({"nmae":"x"})", 422, "/nmae");
        row("null", "PATCH", "/me", json, R"({"name":null})", 422, "/name");
        row("body where none is", "DELETE", "/tokens/50", json, R"({"x":1})", 422, "/x");
        row("mistyped parameter", "GET", "/tokens?lmit=1", "", "", 422, "?lmit");
        row("limit", "GET", "/tokens?limit=1001", "", "", 422, "?limit");
        row("cursor", "GET", "/tokens?cursor=x", "", "", 422, "?cursor");
        row("no time", "GET", "/audit?from=now", "", "", 422, "?from");
        row("quotes", "PATCH", "/me", json, "{\"name\":\"'; DROP TABLE x -- \\\\ \\\"ä😀\"}", 200, "");
        row("no number", "GET", "/accounts/abc", "", "", 404, "");
        row("a huge number", "GET", "/accounts/99999999999999999999", "", "", 404, "");
        row("a name twice", "POST", "/accounts", json, R"({"username":"other","password":"battery staple"})",
            409, "");
        row("a short password", "POST", "/accounts", json, R"({"username":"x","password":"short"})", 422,
            "/password");
        row("an administrator", "POST", "/accounts", json,
            R"({"username":"x","password":"battery staple","role":"admin"})", 403, "");
        row("a past end", "POST", "/tokens", json, R"({"name":"x","expires":"2001-01-01T00:00:00Z"})", 422,
            "/expires");
        row("no such account", "POST", "/grants", json, R"({"account":99,"group":70,"role":"viewer"})", 422,
            "/account");
        row("the owner itself", "POST", "/grants", json, R"({"account":14,"group":70,"role":"viewer"})", 422,
            "/account");
        row("given already", "POST", "/grants", json, R"({"account":12,"group":70,"role":"viewer"})", 409,
            "");
    }
    void conventions() {
        QFETCH(QByteArray, method);
        QFETCH(QByteArray, path);
        QFETCH(QByteArray, type);
        QFETCH(QByteArray, body);
        QFETCH(int, status);
        QFETCH(QByteArray, told);
        const HttpReply reply = m_service->http().request(
            method, "/api/v1" + path, body,
            {{"Authorization", "Bearer " + tokenOf("owner")}, {"Content-Type", type}});
        QCOMPARE(reply.status, status);
        if (status >= 400) {
            QCOMPARE(reply.headers["content-type"], QByteArray("application/problem+json"));
            QCOMPARE(reply.json()["status"].toInt(), status);
        }
        if (!told.isEmpty())
            QCOMPARE(reply.json()["errors"].toArray().at(0).toObject()["pointer"].toString(), QString(told));
        if (method == "PUT" || method == "OPTIONS")
            QCOMPARE(reply.headers["allow"], QByteArray("GET, PATCH, HEAD, OPTIONS"));
    }

    void aKeyDoesItsRequestOnce() {
        const auto add = [&](const QByteArray& caller, const QByteArray& role, const QByteArray& key) {
            return m_service->http().request("POST", "/api/v1/grants",
                                             "{\"account\":16,\"group\":70,\"role\":\"" + role + "\"}",
                                             {{"Authorization", "Bearer " + tokenOf(caller)},
                                              {"Content-Type", "application/json"},
                                              {"Idempotency-Key", key}});
        };
        const HttpReply first = add("owner", "viewer", "k 1");
        QCOMPARE(first.status, 400); // a blank is not for a key
        const HttpReply made = add("owner", "viewer", "k1");
        const HttpReply again = add("owner", "viewer", "k1");
        QCOMPARE(made.status, 201);
        QCOMPARE(again.status, 201);
        QCOMPARE(again.body, made.body);
        QCOMPARE(again.headers["location"], made.headers["location"]);
        QCOMPARE(add("owner", "operator", "k1").status, 409);
        QCOMPARE(add("admin", "viewer", "k1").status, 409); // another account's key: the grant exists
        QCOMPARE(add("owner", "viewer", "k2").status, 409);
        QCOMPARE(m_service->sql("SELECT * FROM `audit` WHERE `action` = 'POST /grants'").size(), 1);
        m_service->sql("UPDATE `idempotency` SET `status` = 0 WHERE `name` = 'k1'"); // as while it runs
        QCOMPARE(add("owner", "viewer", "k1").status, 409);
        m_service->sql("UPDATE `idempotency` SET `at` = `at` - 90000000, `status` = 201"); // 25 h ago
        m_service->sql("DELETE FROM `groupgrant` WHERE `account` = 16");
        QCOMPARE(add("owner", "viewer", "k1").status, 201);
        QVERIFY(m_service->sql("SELECT * FROM `idempotency` WHERE `name` = 'k2'").isEmpty());
    }

    void passwordsEndTokens_data() {
        const Table<QByteArray, QByteArray, QByteArray, int> row{"path", "body", "as", "own"};
        row("one's own", "/me/password", R"({"old":"correct horse","new":"battery staple"})", "owner", 200);
        row("by an administrator", "/accounts/14", R"({"password":"battery staple"})", "admin", 401);
        row("by an older path", "", "user_pass=battery staple", "", 401);
    }
    void passwordsEndTokens() {
        QFETCH(QByteArray, path);
        QFETCH(QByteArray, body);
        QFETCH(QByteArray, as);
        HttpClient& http = m_service->http();
        const auto older = [&](const QString& password) {
            return http.postForm("/user/gtoken", {{"username", "owner"}, {"passwd", password}});
        };
        const QString token = older(Password)["token"].toString();
        const QString other = login("owner", Password).json()["token"].toString();
        QVERIFY(!token.isEmpty() && !other.isEmpty());
        if (path.isEmpty())
            QVERIFY(http.postForm("/user/fnkukei/newpasswdnick",
                                  HttpParams{{"userid", "14"}, {"token", token}} + form(body))
                        .res());
        else
            QVERIFY(ask(as, path == "/me/password" ? "POST" : "PATCH", path, body).status < 300);
        QTEST(ask("owner", "GET", "/me").status, "own");
        QCOMPARE(askWith(other.toUtf8(), "GET", "/me").status, 401);
        QVERIFY(!http.postForm("/user/listdev", {{"id", "14"}, {"token", token}}).res());
        QCOMPARE(login("owner", Password).status, 401);
        QCOMPARE(login("owner", "battery staple").status, 200);
        QVERIFY(older("battery staple").res());
    }

    void tokensAreNotTheOlderOnes() {
        const HttpReply older =
            m_service->http().postForm("/user/gtoken", {{"username", "owner"}, {"passwd", Password}});
        QCOMPARE(askWith(older["token"].toString().toUtf8(), "GET", "/me").status, 401);
        const HttpParams with{{"id", "14"}, {"token", tokenOf("owner")}};
        QVERIFY(!m_service->http().postForm("/user/listdev", with).res());
        const HttpReply refused = ask("nobody", "GET", "/me");
        QCOMPARE(refused.headers["www-authenticate"], QByteArray("Bearer"));
    }

    void tokensEnd() {
        m_service->sql("UPDATE `apitoken` SET `expires` = 1 WHERE `account` = 14");
        QCOMPARE(ask("owner", "GET", "/me").status, 401);
        m_service->sql("UPDATE `apitoken` SET `expires` = `expires` - 86400000 WHERE `account` = 15");
        const auto expiry = [&] {
            return m_service->sql("SELECT `expires` FROM `apitoken` WHERE `account` = 15").first()["expires"];
        };
        const qint64 before = expiry().toLongLong();
        QCOMPARE(ask("other", "GET", "/me").status, 200);
        QVERIFY(expiry().toLongLong() > before); // used, so it lasts longer
        QCOMPARE(ask("other", "POST", "/logout").status, 204);
        QCOMPARE(ask("other", "GET", "/me").status, 401);
    }

    void guessingIsSlowed() {
        for (int guess = 0; guess < 5; ++guess)
            QCOMPARE(login(guess % 2 ? "nobody" : "viewer", "wrong").body, login("nobody2", "wrong").body);
        for (int guess = 0; guess < 2; ++guess)
            QCOMPARE(login("viewer", "wrong").status, 401);
        const HttpReply slowed = login("viewer", Password);
        QCOMPARE(slowed.status, 429);
        QVERIFY(slowed.headers["retry-after"].toInt() >= 1);
        QCOMPARE(login("other", Password).status, 200);
    }

    void theLastAdministratorStays() {
        QCOMPARE(ask("admin", "PATCH", "/accounts/11", R"({"role":"owner"})").status, 409);
        QCOMPARE(ask("admin", "DELETE", "/accounts/11").status, 409);
        QCOMPARE(ask("admin", "PATCH", "/accounts/15", R"({"role":"admin"})").status, 200);
        QCOMPARE(ask("other", "PATCH", "/accounts/11", R"({"role":"owner"})").status, 200);
        QCOMPARE(ask("admin", "GET", "/accounts/15").status, 404);
    }

    void whatADeletedAccountHadIsItsMasters() {
        m_service->sql("UPDATE `sbox_device_info` SET `user_id` = 16");
        QCOMPARE(ask("owner", "DELETE", "/accounts/16").status, 204);
        QCOMPARE(m_service->sql("SELECT `user_id` FROM `sbox_device_info` WHERE `id` = 80")
                     .first()["user_id"]
                     .toInt(),
                 14);
        QCOMPARE(ask("admin", "DELETE", "/accounts/14").status, 204); // has no master
        QCOMPARE(m_service->sql("SELECT `user_id` FROM `sbox_device_info`").first()["user_id"].toInt(), 11);
        for (const char* table : {"groupgrant", "task", "taskgroup", "calendar", "calendarentry"})
            QVERIFY2(m_service->sql(QString("SELECT * FROM `%1`").arg(table)).isEmpty(), table);
        QCOMPARE(ask("owner", "GET", "/me").status, 401);
    }

    void theAuditLogTellsWhatWasDone() {
        ask("owner", "PATCH", "/accounts/16", R"({"password":"battery staple","name":"Bo"})");
        ask("admin", "PATCH", "/me", R"({"name":"Root"})");
        ask("other", "DELETE", "/accounts/16"); // refused
        const auto lines = [&](const QByteArray& caller, const QByteArray& query = {}) {
            QStringList told;
            for (const auto line : ask(caller, "GET", "/audit" + query).json()["items"].toArray())
                told +=
                    QStringList{line.toObject()["action"].toString(), line.toObject()["object"].toString(),
                                line.toObject()["detail"].toString()}
                        .join(' ');
            return told.join(';');
        };
        const QString own = "PATCH /accounts/{id} /accounts/16 name Bo, password";
        QCOMPARE(lines("owner"), own);
        QCOMPARE(lines("admin"), "PATCH /me /me ;" + own);
        QCOMPARE(lines("admin", "?account=14"), own);
        QCOMPARE(lines("admin", "?until=2001-01-01T00:00:00Z"), QString());
        QCOMPARE(lines("other"), QString());
    }

    void pagesOfOtherHostsMayAsk_data() {
        const Table<QByteArray, QByteArray> row{"origin", "allowed"};
        row("named", "https://console.example:8443", "https://console.example:8443");
        row("not named", "https://evil.example", "");
        row("rubbish", "null", "");
    }
    void pagesOfOtherHostsMayAsk() {
        QFETCH(QByteArray, origin);
        for (const char* method : {"OPTIONS", "GET"}) {
            const HttpReply reply = m_service->http().request(
                method, "/api/v1/me", {}, {{"Origin", origin}, {"Access-Control-Request-Method", "PATCH"}});
            QTEST(reply.headers["access-control-allow-origin"], "allowed");
        }
    }

    void noDumpHoldsASecret_data() { addKinds({1, 3}); }
    void noDumpHoldsASecret() {
        QFETCH(int, kind);
        ServiceOptions options;
        options.kind = kind;
        options.settings["hardened"] = true;
        Service service(options);
        QVERIFY(service.start());
        HttpClient& http = service.http();
        const Account plain = service.addAccount("plain", "in-clear-1"); // its first login
        const auto query = [&](const QString& command, const HttpParams& more) {
            return http.postForm("/user/fnkukei/" + command,
                                 plain.params(more + HttpParams{{"userid", QString::number(plain.id)}}));
        };
        QVERIFY(query("addziuser", form("user_name=sub&user_pass=in-clear-2&nickname=&beizhu=&mask=")).res());
        QVERIFY(http.postForm("/user/fnkukei/gtoken", form("username=sub&passwd=in-clear-2")).res());
        QVERIFY(!http.postForm("/user/fnkukei/gtoken", form("username=sub&passwd=in-clear-1")).res());
        QVERIFY(query("newpasswdnick", form("user_pass=in-clear-3")).res());
        QVERIFY(http.postForm("/checkuser.php", form("username=plain&passwd=in-clear-3")).res());
        const auto login = [&](const QByteArray& name, const QByteArray& password) {
            return http.request("POST", "/api/v1/login", credentials(name, password),
                                {{"Content-Type", "application/json"}});
        };
        const HttpReply in = login("plain", "in-clear-3");
        QCOMPARE(in.status, 200);
        QCOMPARE(login("sub", "in-clear-1").status, 401);
        const QByteArray token = in["token"].toString().toUtf8();
        const auto post = [&](const QString& path, const QByteArray& body) {
            return http.request("POST", "/api/v1" + path, body,
                                {{"Authorization", "Bearer " + token},
                                 {"Content-Type", "application/json"},
                                 {"Idempotency-Key", "k"}});
        };
        QCOMPARE(post("/accounts", R"({"username":"v1","password":"in-clear-4"})").status, 201);
        const QByteArray program = post("/tokens", R"({"name":"p"})")["token"].toString().toUtf8();
        QCOMPARE(login("v1", "in-clear-4").status, 200);
        QByteArray dump;
        for (const char* table : {"sbox_users", "apitoken", "audit", "idempotency", "rizhi"})
            for (const QVariantMap& row : service.sql(QString("SELECT * FROM `%1`").arg(table)))
                dump += QJsonDocument(QJsonObject::fromVariantMap(row)).toJson();
        QVERIFY(dump.contains("{crypt}$y$") && dump.contains("POST /accounts"));
        for (const QByteArray& secret : {QByteArray("in-clear"), token, program}) {
            QVERIFY(!secret.isEmpty() && !dump.contains(secret));
            QVERIFY(!service.log().contains(secret));
        }
    }

private:
    /// Accounts 11 to 16, a group of the owner's (70), a grant (60) and a named token (50) of its.
    void reset() {
        for (const char* table :
             {"sbox_users", "apitoken", "groupgrant", "audit", "idempotency", "sbox_group",
              "sbox_device_info", "group_seed", "userfile", "broadcast", "receipt", "journal", "task",
              "taskpop", "taskgroup", "calendar", "calendarentry"})
            m_service->sql(QString("DELETE FROM `%1`").arg(table));
        int id = 11;
        for (const char* name : {"admin", "viewer", "operator", "owner", "other", "sub"}) {
            m_service->sql(QString("INSERT INTO `sbox_users` (`id`, `user_name`, `user_pass`, `user_level`, "
                                   "`master_id`, `token`) VALUES (%1, '%2', '%3', %4, %5, 't%1')")
                               .arg(id)
                               .arg(name, Password)
                               .arg(id == 11 ? 1 : 0)
                               .arg(id == 16 ? 14 : 0));
            addToken(id, id, "", tokenOf(name));
            ++id;
        }
        addToken(50, 14, "program", tokenOf("program"));
        m_service->sql("INSERT INTO `sbox_group` (`id`, `userid`, `group_name`) VALUES (70, 14, 'hall')");
        m_service->sql(
            "INSERT INTO `sbox_device_info` (`id`, `user_id`, `device_name`, `device_seed`) VALUES "
            "(80, 14, 'gate', 'aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa')");
        m_service->sql("INSERT INTO `group_seed` (`gid`, `seed`, `userid`, `devid`) VALUES "
                       "(70, 'aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa', 14, 80)");
        m_service->sql("INSERT INTO `userfile` (`id`, `userid`, `filename`, `url`, `len`) VALUES "
                       "(90, 14, 'Zg==', 'mp3/none.mp3', 20)");
        m_service->sql("INSERT INTO `groupgrant` (`id`, `account`, `gid`, `role`) VALUES (60, 12, 70, 1), "
                       "(61, 13, 70, 2)");
        m_service->sql("INSERT INTO `task` (`id`, `userid`, `start_time`, `enable`) VALUES (100, 14, 1, 0)");
        m_service->sql("INSERT INTO `taskgroup` (`id`, `userid`, `groupname`) VALUES (110, 14, 'plan')");
        m_service->sql("INSERT INTO `calendar` (`id`, `userid`, `name`) VALUES (120, 14, 'year')");
        m_service->sql("INSERT INTO `calendarentry` (`id`, `calendarid`, `firstday`, `lastday`) VALUES "
                       "(130, 120, 20000, 20000)");
        addBroadcast();
    }
    /// Two speakers of the owner, one of them in the group, and another's have played a broadcast of
    /// nobody's.
    void addBroadcast() {
        for (int speaker = 1; speaker <= 3; ++speaker) {
            const QString sn = QString("%1").arg(speaker, 32, 10, QLatin1Char('0'));
            m_service->sql(
                QString("INSERT INTO `sbox_device_info` (`id`, `device_seed`, `user_id`) VALUES (%1, "
                        "'%2', %3)")
                    .arg(70 + speaker)
                    .arg(sn)
                    .arg(speaker == 3 ? 11 : 14));
            m_service->sql(QString("INSERT INTO `receipt` (`broadcast`, `serial`, `state`, `reason`, `sent`) "
                                   "VALUES (7000, '%1', 4, 'so, \"done\"', 1)")
                               .arg(sn));
        }
        m_service->sql("INSERT INTO `group_seed` (`gid`, `devid`) VALUES (70, 71)");
        m_service->sql(
            "INSERT INTO `broadcast` (`id`, `kind`, `state`, `targets`, `n_completed`) VALUES (7000, "
            "'direct', 'done', 3, 3)");
        m_service->sql(
            "INSERT INTO `journal` (`id`, `kind`, `state`, `account`, `broadcast`, `serial`) VALUES "
            "(7100, 'bell', 'late', 14, 0, ''), (7101, 'service', 'started', 0, 0, ''), "
            "(7102, 'direct', 'done', 0, 7000, ''), "
            "(7103, 'speaker', 'flaky', 0, 0, '00000000000000000000000000000001')");
    }
    void addToken(int id, int account, const char* name, const QByteArray& text) {
        m_service->sql(
            QString("INSERT INTO `apitoken` (`id`, `account`, `name`, `hash`, `created`, `expires`) VALUES "
                    "(%1, %2, '%3', '%4', 0, %5)")
                .arg(id)
                .arg(account)
                .arg(name, QString(QCryptographicHash::hash(text, QCryptographicHash::Sha256).toHex()))
                .arg(QDateTime::currentMSecsSinceEpoch() + 86'400'000LL * 29));
    }
    HttpReply askWith(const QByteArray& token, const QByteArray& method, const QByteArray& path,
                      const QByteArray& body = {}) {
        return m_service->http().request(
            method, "/api/v1" + path, body,
            {{"Authorization", "Bearer " + token}, {"Content-Type", "application/json"}});
    }
    HttpReply ask(const QByteArray& caller, const QByteArray& method, const QByteArray& path,
                  const QByteArray& body = {}) {
        return askWith(caller == "nobody" ? QByteArray() : tokenOf(caller), method, path, body);
    }
    HttpReply login(const QByteArray& name, const QByteArray& password) {
        return ask("nobody", "POST", "/login", credentials(name, password));
    }
    std::unique_ptr<Service> m_service;
};

int main(int argc, char** argv) {
    return runTest<RestAccountsTest>(argc, argv);
}
#include "rest_accounts_test.moc"
