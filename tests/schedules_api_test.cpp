// Schedules, plans and calendars of the interface v1 on the wire, and the bells that come of them.
#include "support/mariadb.h"
#include "support/speakers.h"
#include "support/table.h"
#include "support/testmain.h"

#include <QDateTime>

namespace {
using namespace std::chrono_literals;

const QByteArray Easter = "BEGIN:VCALENDAR\nVERSION:2.0\n"
                          "BEGIN:VEVENT\nUID:easter\nSUMMARY:Easter\nDTSTART;VALUE=DATE:20300419\n"
                          "DTEND;VALUE=DATE:20300423\nEND:VEVENT\n"
                          "BEGIN:VEVENT\nUID:friday\nSUMMARY:Friday\nDTSTART:20300104T120000\nDURATION:PT1H\n"
                          "RRULE:FREQ=WEEKLY;COUNT=3\nEND:VEVENT\n"
                          "BEGIN:VEVENT\nUID:bad\nDTSTART:20300104T120000\nRRULE:FREQ=HOURLY\nEND:VEVENT\n"
                          "END:VCALENDAR\n";

/// A service with an account that has two speakers and a sound.
struct School {
    explicit School(int kind = 3)
        : service([kind] {
            ServiceOptions options;
            options.kind = kind;
            options.settings = {{"taskstart", 0}, {"taskend", 86399}};
            return options;
        }()) {
        if (!service.start())
            qFatal("no service");
        account = service.addAccount("school", "secret-word");
        sim::SpeakerOptions first = speakersAt(service);
        fleet = std::make_unique<sim::Fleet>(first, 2);
        service.giveSpeakers(account, fleet->serials());
        QDir().mkpath(service.docroot() + "/mp3");
        QFile mp3(service.docroot() + "/mp3/bell.mp3");
        mp3.open(QIODevice::WriteOnly);
        mp3.write(makeMp3(3));
        mp3.close();
        service.sql(QStringLiteral("INSERT INTO userfile (userid, url, len) VALUES (%1, 'mp3/bell.mp3', 3)")
                        .arg(account.id));
        token = call("POST", "/login", {{"username", account.name}, {"password", account.password}})["token"]
                    .toString()
                    .toLatin1();
    }
    HttpReply send(const QByteArray& method, const QString& path, const QByteArray& body,
                   const QByteArray& type) {
        return service.http().request(method, "/api/v1" + path, body,
                                      {{"Authorization", "Bearer " + token}, {"Content-Type", type}});
    }
    HttpReply call(const QByteArray& method, const QString& path, const QJsonObject& body = {}) {
        return send(method, path,
                    method == "GET" || method == "DELETE" ? QByteArray() : QJsonDocument(body).toJson(),
                    "application/json");
    }
    QJsonArray items(const QString& path) { return call("GET", path)["items"].toArray(); }
    int add(const QString& path, const QJsonObject& body) {
        const HttpReply reply = call("POST", path, body);
        if (reply.status != 201)
            qWarning() << reply.status << reply.body;
        return reply["id"].toInt();
    }
    QJsonObject bell(const QJsonObject& more = {}) const {
        QJsonObject bell{{"name", "bell"},
                         {"time", "08:00:00"},
                         {"sounds", QJsonArray{1}},
                         {"targets", QJsonObject{{"all", true}}}};
        for (auto member = more.begin(); member != more.end(); ++member)
            bell.insert(member.key(), member.value());
        return bell;
    }
    Service service;
    Account account;
    std::unique_ptr<sim::Fleet> fleet;
    QByteArray token;
};

} // namespace

class SchedulesApiTest : public QObject {
    Q_OBJECT
private slots:
    void everythingOfASchedule_data() { addKinds({3, 1}); }
    void everythingOfASchedule() {
        QFETCH(int, kind);
        School school(kind);
        const int plan = school.add("/plans", {{"name", "short \"day\""}, {"exceptional", true}});
        const int calendar = school.add("/calendars", {{"name", "year"}});
        const QJsonObject whole{{"enabled", false},
                                {"days", QJsonArray{1, 7}},
                                {"from", "2030-01-01"},
                                {"until", "2030-12-31"},
                                {"calendar", calendar},
                                {"plan", plan},
                                {"repeat", 2},
                                {"seconds", 90},
                                {"volume", 7},
                                {"priority", 120},
                                {"missed", QJsonObject{{"policy", "ring"}, {"within", 900}}},
                                {"targets", QJsonObject{{"speakers", QJsonArray{school.fleet->at(1).sn()}},
                                                        {"groups", QJsonArray()}}}};
        const int id = school.add("/schedules", school.bell(whole));
        const QString path = QStringLiteral("/schedules/%1").arg(id);
        QJsonObject stored = school.call("GET", path).json();
        for (auto member = whole.begin(); member != whole.end(); ++member)
            QVERIFY2(stored[member.key()] == member.value(), qPrintable(member.key()));
        QVERIFY(stored["next"].isNull() && stored["last"].isNull());
        QCOMPARE(school.items("/schedules"), QJsonArray{stored});
        // The same row as the older paths' task.
        const HttpReply task = school.service.http().postForm(
            "/user/getone_task", school.account.params({{"taskid", QString::number(id)}}));
        QCOMPARE(task["tasktime"].toString(), "8:0:0");
        QCOMPARE(task["snids"].toString(), "2");
        QVERIFY(!task.json().contains("missed"));

        stored = school
                     .call("PATCH", path,
                           {{"missed", QJsonObject{{"policy", "skip"}}},
                            {"seconds", QJsonValue()},
                            {"calendar", QJsonValue()}})
                     .json();
        QCOMPARE(stored["missed"], QJsonValue(QJsonObject{{"policy", "skip"}, {"within", 60}}));
        QVERIFY(stored["seconds"].isNull() && stored["calendar"].isNull());
        QCOMPARE(stored["plan"].toInt(), plan);
        QCOMPARE(school.call("DELETE", path).status, 204);
        QCOMPARE(school.call("GET", path).status, 404);
        QVERIFY(school.service.sql("SELECT * FROM taskrule").isEmpty());
    }

    void refusals() {
        School school;
        const auto check = [&](const QString& path, const QJsonObject& body, const QString& pointer) {
            const HttpReply reply = school.call("POST", path, body);
            QCOMPARE(reply.status, 422);
            QCOMPARE(reply["errors"].toArray().at(0)["pointer"].toString(), pointer);
        };
        const std::vector<std::pair<const char*, QJsonValue>> wrong{{"time", "8:00"},
                                                                    {"time", "24:00:00"},
                                                                    {"days", QJsonArray()},
                                                                    {"days", QJsonArray{8}},
                                                                    {"from", "2030-02-30"},
                                                                    {"calendar", 9},
                                                                    {"plan", 9},
                                                                    {"repeat", 1001},
                                                                    {"volume", 0},
                                                                    {"priority", 256},
                                                                    {"name", ""},
                                                                    {"colour", "red"},
                                                                    {"sounds", QJsonArray()}};
        for (const auto& [name, value] : wrong)
            check("/schedules", school.bell({{name, value}}), QStringLiteral("/%1").arg(name));
        check("/schedules", school.bell({{"sounds", QJsonArray{1, 9}}}), "/sounds/1");
        check("/schedules", school.bell({{"missed", QJsonObject{{"within", 3601}}}}), "/missed/within");
        check("/schedules", school.bell({{"from", "2030-01-02"}, {"until", "2030-01-01"}}), "/until");
        check("/schedules", school.bell({{"repeat", 0}}), "/seconds");
        const QString entries =
            QStringLiteral("/calendars/%1/entries").arg(school.add("/calendars", {{"name", "c"}}));
        check(entries, {{"name", "e"}, {"from", "2030-01-02"}, {"until", "2030-01-01"}}, "/until");
        check(entries, {{"name", "e"}, {"from", "2030-01-02"}, {"until", "2030-01-02"}, {"plan", 4}},
              "/plan");
        QCOMPARE(
            school.call("GET", "/schedules/upcoming?from=2030-01-01T00:00:00Z&until=2031-02-07T00:00:00Z")
                .status,
            422);
    }

    void calendarsKeepBellsSilent() {
        School school;
        const int shortDay = school.add("/plans", {{"name", "short"}, {"exceptional", true}});
        const int usual = school.add("/plans", {{"name", "usual"}});
        const int calendar = school.add("/calendars", {{"name", "holidays"}});
        const QString path = QStringLiteral("/calendars/%1").arg(calendar);
        const int late = school.add("/schedules", school.bell({{"calendar", calendar}, {"plan", usual}}));
        const int early = school.add(
            "/schedules", school.bell({{"calendar", calendar}, {"plan", shortDay}, {"time", "07:00:00"}}));
        const int silent = school.add(
            path + "/entries",
            {{"name", "x"}, {"from", "2030-05-01"}, {"until", "2030-05-03"}, {"plan", QJsonValue()}});
        school.add(path + "/entries",
                   {{"name", "y"}, {"from", "2030-05-02"}, {"until", "2030-05-02"}, {"plan", shortDay}});
        QStringList told;
        QString cursor;
        do { // one by one, over the cursor
            const HttpReply page = school.call(
                "GET",
                "/schedules/upcoming?limit=1&from=2030-05-01T00:00:00Z&until=2030-05-04T23:00:00Z" + cursor);
            for (const QJsonValue& bell : page["items"].toArray())
                told += QStringLiteral("%1 %2 %3 %4")
                            .arg(bell["schedule"].toInt())
                            .arg(bell["due"].toString().mid(8, 5))
                            .arg(bell["rings"].toBool())
                            .arg(bell["reason"].toString());
            cursor = page["next"].isNull() ? QString() : "&cursor=" + page["next"].toString();
        } while (!cursor.isEmpty());
        const QString reason = " 0 silent by calendar holidays";
        QCOMPARE(told, (QStringList{QStringLiteral("%1 01T08").arg(late) + reason,
                                    QStringLiteral("%1 02T07 1 ").arg(early),
                                    QStringLiteral("%1 02T08").arg(late) + reason,
                                    QStringLiteral("%1 03T08").arg(late) + reason,
                                    QStringLiteral("%1 04T08 1 ").arg(late)}));
        QCOMPARE(school.call("DELETE", path).status, 409);
        QCOMPARE(school.call("DELETE", QStringLiteral("/plans/%1").arg(shortDay)).status, 409);
        QCOMPARE(school.call("DELETE", path + QStringLiteral("/entries/%1").arg(silent)).status, 204);
        QCOMPARE(school.call("DELETE", QStringLiteral("/plans/%1").arg(usual)).status, 204);
        QVERIFY(school.call("GET", QStringLiteral("/schedules/%1").arg(late))["plan"].isNull());
    }

    void filesInAndOut_data() { addKinds({3, 1}); }
    void filesInAndOut() {
        QFETCH(int, kind);
        School school(kind);
        const int plan = school.add("/plans", {{"name", "short"}});
        const QString path = QStringLiteral("/calendars/%1").arg(school.add("/calendars", {{"name", "c"}}));
        const auto import = [&](const QByteArray& text) {
            return school.send("POST", path + "/import", text, "text/calendar");
        };
        HttpReply reply = import(Easter);
        QCOMPARE(
            reply.json(),
            (QJsonObject{{"added", 2},
                         {"changed", 0},
                         {"removed", 0},
                         {"ignored", QJsonArray{QJsonObject{
                                         {"uid", "bad"}, {"reason", "it recurs more often than daily"}}}}}));
        QJsonArray entries = school.items(path + "/entries");
        QCOMPARE(entries.size(), 4);
        QCOMPARE(entries.at(0)["until"].toString(), "2030-04-22");
        const QString friday = path + QStringLiteral("/entries/%1").arg(entries.at(3)["id"].toInt());
        QCOMPARE(school.call("PATCH", friday, {{"plan", plan}}).status, 200);

        QByteArray later = Easter;
        later.replace("20300419", "20300418").replace("COUNT=3", "COUNT=4");
        reply = import(later);
        QCOMPARE(reply["changed"].toInt(), 2);
        QCOMPARE(reply["added"].toInt() + reply["removed"].toInt(), 0);
        entries = school.items(path + "/entries");
        QCOMPARE(entries.size(), 5);
        QCOMPARE(entries.at(0)["from"].toString(), "2030-04-18");
        QCOMPARE(entries.at(3)["plan"].toInt(), plan);
        QCOMPARE(entries.at(4)["plan"].toInt(), plan); // as the event's last one
        QVERIFY(entries.at(2)["plan"].isNull());

        const HttpReply file = school.call("GET", path + "/export");
        QVERIFY(file.headers["content-type"].startsWith("text/calendar"));
        QCOMPARE(file.body.count("BEGIN:VEVENT"), 5);
        later.replace("UID:easter", "UID:easter\nSTATUS:CANCELLED");
        QCOMPARE(import(later)["removed"].toInt(), 1);
        QCOMPARE(import("nonsense").status, 422);
        QCOMPARE(import(QByteArray((4 << 20) + 1, 'x')).status, 413);
        QCOMPARE(school.items(path + "/entries").size(), 4);
    }

    /// The days of a month ago are expanded again, as they are each day.
    void anExpansionAddsNewDaysOnly() {
        School school;
        const QString path = QStringLiteral("/calendars/%1").arg(school.add("/calendars", {{"name", "c"}}));
        QCOMPARE(school
                     .send("POST", path + "/import",
                           "BEGIN:VCALENDAR\nVERSION:2.0\nBEGIN:VEVENT\nUID:week\n"
                           "DTSTART;VALUE=DATE:20260105\nRRULE:FREQ=WEEKLY\nEND:VEVENT\nEND:VCALENDAR\n",
                           "text/calendar")
                     .status,
                 200);
        const auto days = [&] {
            return school.service.sql("SELECT id, firstday FROM calendarentry ORDER BY firstday");
        };
        const QList<QVariantMap> all = days();
        QCOMPARE(school.call("DELETE", path + "/entries/" + all.first()["id"].toString()).status, 204);
        school.service.sql(QStringLiteral("DELETE FROM calendarentry WHERE firstday >= %1")
                               .arg(all.at(all.size() - 2)["firstday"].toInt()));
        school.service.sql("UPDATE calendarfile SET expanded = expanded - 30");
        school.service.kill9();
        QVERIFY(school.service.start());
        QVERIFY(waitFor([&] { return days().size() == all.size() - 1; }));
        QCOMPARE(days().first()["firstday"], all.at(1)["firstday"]);
        QCOMPARE(days().last()["firstday"], all.last()["firstday"]);
    }

    void bellsRingInGroups() {
        School school;
        school.fleet->start();
        QVERIFY(waitFor([&] { return school.fleet->online() == 2; }));
        const int inner = school.add("/groups", {{"name", "inner"}});
        const int outer = school.add("/groups", {{"name", "outer"}, {"groups", QJsonArray{inner}}});
        school.call("PATCH", QStringLiteral("/groups/%1").arg(inner),
                    {{"speakers", QJsonArray::fromStringList(school.fleet->serials())}});
        const QDateTime due = QDateTime::currentDateTime().addSecs(3);
        const int id =
            school.add("/schedules", school.bell({{"time", due.toString("HH:mm:ss")},
                                                  {"targets", QJsonObject{{"groups", QJsonArray{outer}}}}}));
        const QString path = QStringLiteral("/schedules/%1").arg(id);
        QCOMPARE(school.call("GET", path)["next"].toString().left(19), due.toString("yyyy-MM-ddTHH:mm:ss"));
        const auto played = [&](int times) {
            return waitFor([&] {
                return school.fleet->at(0).count(sim::Op::PlayList) == times &&
                       school.fleet->at(1).count(sim::Op::PlayList) == times;
            });
        };
        QVERIFY(played(1));
        QVERIFY(waitFor([&] { return !school.call("GET", path)["last"].isNull(); }));
        const QJsonObject row = school.items("/journal?kind=bell").at(0).toObject();
        QCOMPARE(row["state"].toString(), "played");
        QCOMPARE(row["schedule"].toInt(), id);
        QCOMPARE(school.call("GET", path)["last"]["due"], row["due"]);
        const QString broadcast = QString::number(static_cast<qint64>(row["broadcast"].toDouble()));
        const HttpReply rung = school.call("GET", "/broadcasts/" + broadcast);
        QVERIFY2(rung["kind"].toString() == "bell", broadcast.toLatin1() + rung.body);
        QCOMPARE(school.call("POST", path + "/start").status, 409);
        QCOMPARE(school.call("POST", path + "/stop").status, 202);
        QVERIFY(waitFor([&] { return school.fleet->at(0).count(sim::Op::Stop) > 0; }));
        QVERIFY(waitFor([&] { return school.call("POST", path + "/start").status == 202; }));
        QVERIFY(played(2));
        QCOMPARE(school.call("DELETE", path).status, 204);
        QVERIFY(waitFor([&] { return school.fleet->at(0).count(sim::Op::Stop) > 2; }));
    }
};

int main(int argc, char** argv) {
    return runTest<SchedulesApiTest>(argc, argv);
}
#include "schedules_api_test.moc"
