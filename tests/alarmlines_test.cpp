#include "support/speakers.h"
#include "support/table.h"
#include "support/testmain.h"

#include <QtTest>

/// Alarm lines from end to end: the real service, and speakers whose lines fire.
class AlarmLinesTest : public QObject {
    Q_OBJECT
private slots:
    void initTestCase_data() { addKinds({3, 1}); }

    void init() {
        QFETCH_GLOBAL(int, kind);
        ServiceOptions options;
        options.kind = kind;
        options.settings["hardened"] = kind == 1;
        options.files = {{"etc/docroot/mp3/alarm.mp3", makeMp3(0.5)}};
        m_service = std::make_unique<Service>(options);
        QVERIFY(m_service->start());
        m_admin = m_service->addAccount("admin", "pass&word");
        m_fleet = onlineFleet(speakersAt(*m_service), 3);
        m_service->giveSpeakers(m_admin, m_fleet->serials());
    }

    void cleanup() {
        m_fleet.reset();
        QCOMPARE(m_service->stop(), 0);
        m_service.reset();
    }

    void aLineStartsItsPlan() {
        const QStringList serials = m_fleet->serials();
        const QString plan = makePlan(m_service->url("/mp3/alarm.mp3"), serials.mid(1));
        const HttpParams line{{"sn", serials[0]}, {"dname", "gate"}, {"fb", "B"}, {"pltid", plan}};
        QCOMPARE(post("/user/wplantrg", line).info(), "done");
        QVERIFY(waitFor([&] { return speaker(0).alarmLines().contains("B"); }));
        QVERIFY(speaker(0).last(sim::Op::Stream)->argument.endsWith("&dd.mp3B"));

        QVERIFY(speaker(0).fire("B"));
        QVERIFY(waitFor([&] { return hasFetched(1, "alarm.mp3") && hasFetched(2, "alarm.mp3"); }));

        const QJsonArray bound = post("/user/wfilelistrg", {})["filelist"].toArray();
        QCOMPARE(bound.size(), 1);
        QCOMPARE(bound[0]["filename"].toString(), "fire");
        const QString id = QString::number(bound[0]["id"].toInt());
        QCOMPARE(post("/user/wfileforceunrg", {{"sn", serials[0]}, {"fb", "B"}, {"rgid", id}}).info(),
                 "done");
        QVERIFY(waitFor([&] { return speaker(0).alarmLines().isEmpty(); }));
        QVERIFY(!speaker(0).fire("B"));
        QCOMPARE(m_service->sql("SELECT * FROM warregister").size(), 1);

        QCOMPARE(post("/user/wplantrg", line).info(), "done");
        const auto row = m_service->sql("SELECT * FROM warregister");
        QCOMPARE(row.size(), 1); // the line has one binding, however often it is bound
        const QString newId = row.first().value("id").toString();
        QCOMPARE(post("/user/wfileunrg", {{"sn", serials[0]}, {"fb", "B"}, {"rgid", newId}})["EF"].toInt(),
                 1);
        QVERIFY(waitFor([&] { return speaker(0).alarmLines().isEmpty(); }));
        QCOMPARE(m_service->sql("SELECT * FROM warregister").size(), 0);
        QCOMPARE(post("/user/wplantrm", {{"pltid", plan}}).info(), "done");
        QCOMPARE(post("/user/wplantlist", {})["plantlist"].toArray().size(), 0);
    }

    void aLinePlaysItsFile() {
        const QString sn = m_fleet->serials().first();
        const HttpParams line{{"url", m_service->url("/mp3/alarm.mp3")},
                              {"filename", "alarm"},
                              {"sn", sn},
                              {"dname", "d"},
                              {"fb", "F"}};
        QCOMPARE(post("/user/wfilerg", line).info(), "done");
        QVERIFY(waitFor([&] { return speaker(0).fire("F"); }));
        QVERIFY(waitFor([&] { return hasFetched(0, "alarm.mp3"); }));
        QCOMPARE(m_service->sql("SELECT * FROM warregister").first().value("kind").toInt(), 0);
    }

    void aLineStartsItsTask() {
        const QString task = QString::number(makeTask());
        QVERIFY(task != "0");
        const QString sn = m_fleet->serials().first();
        const HttpParams line{{"sn", sn},
                              {"taskid", task},
                              {"username", m_admin.name},
                              {"passwd", m_admin.password},
                              {"host", QString("127.0.0.1:%1").arg(m_service->httpPort())},
                              {"lineid", "gate-1"}};
        QCOMPARE(post("/user/setwaringlinetaskid", line).info(), "done");
        QVERIFY(waitFor([&] { return speaker(0).alarmLines().contains("gate-1"); }));
        const QFileInfo binding(m_service->file("waring/gate-1.json"));
        QVERIFY(binding.exists());
        QVERIFY(!(binding.permissions() & (QFile::ReadGroup | QFile::ReadOther)));
        const QString bound = m_service->url(QString());
        QFile stored(binding.filePath());
        QVERIFY(stored.open(QIODevice::ReadOnly));
        const QString callback =
            QJsonDocument::fromJson(stored.readAll())["url"].toString().mid(bound.size());
        QFETCH_GLOBAL(int, kind);
        const bool hasSecret = kind == 1; // an address without one goes on working there too
        QCOMPARE(callback.contains("passwd=pass%26word"), !hasSecret);

        QVERIFY(speaker(0).fire("gate-1"));
        const QString state = "SELECT statu FROM task WHERE id = " + task;
        QVERIFY(waitFor([&] { return m_service->sql(state).first().value("statu").toInt() == 1; },
                        std::chrono::seconds(2)));
        QVERIFY(waitFor([&] { return hasFetched(2, "alarm.mp3"); }));
        QVERIFY(speaker(2).last(sim::Op::Stream)); // an alarm plays with the alarm's command

        const QString start = "/Startwaringtask.php?username=%1&passwd=%2&taskid=%3";
        QCOMPARE(m_service->http().get(start.arg("admin", "wrong", task)).info(), "账号密码不正确");
        QCOMPARE(m_service->http().get(start.arg("admin", "pass%26word", task)).info(), "Task is Working");
        QCOMPARE(m_service->http().get(start.arg("admin", "pass%26word", "999")).info(), "ER_REJECT");
        QCOMPARE(m_service->http().get("/Startwaringtask.php?username=admin").info(), "Parer");

        const auto call = [&](const QRegularExpression& part, const QString& other) {
            return m_service->http().get(QString(callback).replace(part, other)).info();
        };
        const QRegularExpression nothing("^none"), secret("token=\\w+"), number("taskid=\\w+"),
            lineid("lineid=[^&]+");
        if (hasSecret) {
            QCOMPARE(call(secret, "token=" + m_admin.token), "token 不对");
            QCOMPARE(call(secret, "token="), "token 不对");
            QCOMPARE(call(lineid, "lineid=../waring/gate-1"), "token 不对");
            QCOMPARE(call(number, "taskid=999"), "ER_REJECT");
            QCOMPARE(call(nothing, ""), "Task is Working");
        }

        QCOMPARE(post("/user/rmwaringlinetaskid", {{"sn", sn}, {"lineid", "gate-1"}}).info(), "done");
        if (hasSecret)
            QCOMPARE(call(nothing, ""), "token 不对");
        QVERIFY(waitFor([&] { return !speaker(0).alarmLines().contains("gate-1"); }));
        QVERIFY(!QFile::exists(binding.filePath()));
    }

    void whatIsNotTheCallersIsRefused() {
        const QStringList serials = m_fleet->serials();
        const Account other = m_service->addAccount("other");
        const QString plan = makePlan("http://x/a.mp3", {serials[0]});
        const auto as = [&](const Account& who, const QString& path, const HttpParams& params) {
            return m_service->http().postForm(path, who.params(params)).info();
        };
        const HttpParams line{{"pltid", plan}, {"sn", serials[0]}, {"dname", "d"}, {"fb", "B"}};
        const HttpParams file{
            {"url", "http://x/a.mp3"}, {"filename", "f"}, {"sn", serials[0]}, {"dname", "d"}, {"fb", "B"}};
        QCOMPARE(as(other, "/user/wplantrg", line), "exec_error");
        QCOMPARE(as(other, "/user/wfilerg", file), "exec_error");
        QCOMPARE(as(other, "/user/wplantrm", {{"pltid", plan}}), "exec_error");
        QCOMPARE(as(other, "/user/wfileforceunrg", {{"sn", serials[0]}, {"fb", "B"}, {"rgid", "1"}}),
                 "exec_error");
        QCOMPARE(as(m_admin, "/user/wplantrg", HttpParams(line).mid(0, 3) + HttpParams{{"fb", "X"}}),
                 "Paruser");
        QCOMPARE(as(m_admin, "/user/wplantadd", {{"url", "u"}, {"plantname", "n"}, {"snlist", ""}}),
                 "snlist_error");
        speaker(0).stop();
        QVERIFY(waitFor([&] { return as(m_admin, "/user/wplantrg", line) == "unline_error"; }));
        QCOMPARE(as(m_admin, "/user/wfilerg", file), "unline_error");
        QCOMPARE(m_service->sql("SELECT * FROM warregister").size(), 0);
        QCOMPARE(speaker(0).count(sim::Op::Stream), 0);
    }

    void nothingLeavesItsPlaceInTheSpeakersLine_data() {
        const Table<QString, QString, QString> row{"host", "lineid", "taskid"};
        row("host ends the quotes", "h\" && reboot #", "l1", "1");
        row("line id is a path", "127.0.0.1", "../../etc/passwd", "1");
        row("line id runs a command", "127.0.0.1", "l;reboot", "1");
        row("task is no number", "127.0.0.1", "l1", "1;reboot");
    }

    void nothingLeavesItsPlaceInTheSpeakersLine() {
        QFETCH(QString, host);
        QFETCH(QString, lineid);
        QFETCH(QString, taskid);
        const HttpParams line{{"sn", m_fleet->serials().first()},
                              {"taskid", taskid},
                              {"username", "u\"$(reboot)"},
                              {"passwd", "p"},
                              {"host", host},
                              {"lineid", lineid}};
        QCOMPARE(post("/user/setwaringlinetaskid", line).info(), "Paruser");
        QCOMPARE(speaker(0).count(sim::Op::Stream), 0);
        QCOMPARE(QDir(m_service->file("waring")).entryList({"*.json"}, QDir::Files).size(), 0);
    }

private:
    HttpReply post(const QString& path, const HttpParams& params) {
        return m_service->http().postForm(path, m_admin.params(params));
    }
    sim::Speaker& speaker(int i) { return m_fleet->at(i); }
    bool hasFetched(int i, const QString& url) {
        const auto& fetches = speaker(i).fetches();
        return std::any_of(fetches.begin(), fetches.end(), [&](const sim::Fetch& fetch) {
            return fetch.ok() && fetch.address.contains(url);
        });
    }
    QString makePlan(const QString& url, const QStringList& serials) {
        const HttpReply plan =
            post("/user/wplantadd", {{"url", url}, {"plantname", "fire"}, {"snlist", serials.join('|')}});
        return QString::number(plan["pltid"].toInt());
    }
    int makeTask() {
        const int file = 7;
        m_service->sql(
            QString("INSERT INTO userfile (id, userid, filename, url, len) VALUES (%1, %2, 'YQ==', '%3', 1)")
                .arg(file)
                .arg(m_admin.id)
                .arg(m_service->url("/mp3/alarm.mp3")));
        const QString device =
            m_service->sql("SELECT id FROM sbox_device_info").last().value("id").toString();
        return post("/user/add_task", {{"snids", device},
                                       {"fileids", QString::number(file)},
                                       {"start_time", "3:0:0"},
                                       {"task_name", "alarm"},
                                       {"len", "60"},
                                       {"kind", "1"}})["taskid"]
            .toInt();
    }

    std::unique_ptr<Service> m_service;
    std::unique_ptr<sim::Fleet> m_fleet;
    Account m_admin;
};

int main(int argc, char** argv) {
    return runTest<AlarmLinesTest>(argc, argv);
}
#include "alarmlines_test.moc"
