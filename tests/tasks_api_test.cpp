// The endpoints for tasks, plans and temporary plays, with and without a task queue behind them.
#include "support/service.h"
#include "support/table.h"
#include "support/testmain.h"
#include "support/waitfor.h"

#include <map>

namespace {

/// A service with two accounts; the first owns two speakers and two files.
struct Site {
    explicit Site(int kind) {
        ServiceOptions options;
        options.kind = kind;
        service = std::make_unique<Service>(options);
        if (!service->start())
            qFatal("no service");
        owner = service->addAccount("owner");
        other = service->addAccount("other");
        service->giveSpeakers(owner, {QString(32, 'a'), QString(32, 'b')});
        service->giveSpeakers(other, {QString(32, 'c')});
        for (int i = 1; i <= 2; ++i)
            service->sql(
                QStringLiteral("INSERT INTO userfile (userid, filename, url, len) VALUES (%1, 'bmFtZQ==', "
                               "'mp3/%2.mp3', 200)")
                    .arg(owner.id)
                    .arg(i));
    }
    HttpReply post(const QString& path, const HttpParams& params) const {
        return service->http().postForm(path, params);
    }
    HttpReply call(const QString& path, const HttpParams& params = {}) const {
        return post(path, owner.params(params));
    }
    int addTask(const HttpParams& more = {}) const {
        const HttpReply reply =
            call("/user/add_task",
                 form("snids=1|2&fileids=1,2,1&start_time=7:30:00&task_name= first bell &len=600") + more);
        return reply.res() ? reply["taskid"].toInt() : 0;
    }
    QVariantMap task(int id) const {
        return service->sql(QString("SELECT * FROM task WHERE id = %1").arg(id)).value(0);
    }
    int count(const QString& from) const {
        return service->sql("SELECT count(*) AS n FROM " + from).value(0)["n"].toInt();
    }
    QList<int> members(const char* column, const char* table, int task) const {
        QList<int> ids;
        const QString order = "SELECT %1 AS member FROM %2 WHERE taskid = %3 ORDER BY id";
        for (const QVariantMap& row : service->sql(order.arg(column, table).arg(task)))
            ids += row["member"].toInt();
        return ids;
    }
    std::unique_ptr<Service> service;
    Account owner, other;
};

QString id(int number) {
    return QString::number(number);
}

} // namespace

class TasksApiTest : public QObject {
    Q_OBJECT
private slots:
    void initTestCase_data() { addKinds({0, 1, 3}); }
    void init() {
        QFETCH_GLOBAL(int, kind);
        if (!m_sites[kind])
            m_sites[kind] = std::make_unique<Site>(kind);
        m_site = m_sites[kind].get();
    }

    void cleanupTestCase() { m_sites.clear(); }

    void refusals_data() {
        // all parameters are required; word: of a missing one; strict: tells an unknown user from a wrong
        // token
        const Table<QString, QString, bool> row{"parameters", "word", "strict"};
        row("/user/add_task", "snids=1&fileids=1&start_time=1", "Paruser", true);
        row("/user/list_task", "", "Paruser", false);
        row("/user/getone_task", "taskid=1", "Paruser", false);
        row("/user/edit_task", "taskid=1", "Paruser", false);
        row("/user/editsns_task", "taskid=1&snids=1", "Parer", true);
        row("/user/editfiles_task", "taskid=1&fileids=1", "Parer", true);
        row("/user/del_task", "taskid=1", "Paruser", false);
        row("/user/enabletask", "taskid=1", "Parer", false);
        row("/user/disabletask", "taskid=1", "Parer", false);
        row("/user/starttask", "taskid=1", "Parer", false);
        row("/user/stoptask", "taskid=1", "Parer", false);
        row("/user/tmpstartpl", "snids=1&fileids=1", "Parer", false);
        row("/user/tmplistpl", "", "Parer", false);
        row("/user/tmpstoppl", "tpid=1", "Parer", false);
        row("/user/addplant", "pname=1", "ParERuser_add_dev", true);
        row("/user/deleteplant", "pid=1", "ParERuser_add_dev", true);
        row("/user/listplant", "", "ParERuser_add_dev", true);
        row("/user/plantedittask", "pid=1&taskid=1", "ParERuser_add_dev", true);
        row("/user/plantenable", "pid=1", "ParERuser_add_dev", true);
        row("/user/plantdisable", "pid=1", "ParERuser_add_dev", true);
    }

    void refusals() {
        QFETCH(QString, parameters);
        QFETCH(bool, strict);
        const auto post = [this](const HttpParams& params) {
            return m_site->post(QTest::currentDataTag(), params);
        };
        HttpParams all = m_site->owner.params(form(parameters));
        for (int i = 0; i < all.size(); ++i) {
            HttpParams some = all;
            some.removeAt(i);
            QTEST(post(some).info(), "word");
        }
        all[1].second = "wrong";
        QCOMPARE(post(all).info(), "_FALSE6");
        QCOMPARE(post(all)["code"].toInt(), -2);
        all[0].second = "4711";
        QCOMPARE(post(all).info(), strict ? "_FALSE5" : "_FALSE6");
        QCOMPARE(post(all)["code"].toInt(), strict ? -1 : -2);
    }

    void badValues_data() {
        QTest::addColumn<QString>("path");
        QTest::addColumn<QString>("name");
        QTest::addColumn<QString>("value");
        QTest::addColumn<QString>("word");
        const auto row = [](const char* path, const char* name, const char* value, const char* word) {
            QTest::addRow("%s %s=%s", path, name, value)
                << QString(path) << QString(name) << QString(value) << QString(word);
        };
        for (const char* path : {"/user/add_task", "/user/edit_task"}) {
            row(path, "start_time", "25:0:0", "Paruser");
            row(path, "startdate", "2027-2-30", "Paruser");
            row(path, "enddate", "tomorrow", "Paruser");
            row(path, path[6] == 'a' ? "weeks" : "week", "11111112", "Paruser");
            row(path, "len", "9", "_FALSE7");
            row(path, "len", "86401", "_FALSE7");
            row(path, "len", "long", "_FALSE7");
            row(path, "kind", path[6] == 'a' ? "-1" : "3", "_FALSE7");
        }
        row("/user/edit_task", "kind", "0", "_FALSE7");
        row("/user/add_task", "task_name", "it's", "ER_EXE3");
        row("/user/add_task", "snids", "1|x", "Paruser");
        row("/user/editsns_task", "snids", "1;2", "Parer");
        row("/user/editfiles_task", "fileids", "-1", "Parer");
        row("/user/tmpstartpl", "len", "1", "_FALSE7");
        row("/user/tmpstartpl", "snids", "3", "ER_REJECT"); // another account's speaker
        row("/user/tmpstartpl", "fileids", "99", "ER_REJECT");
    }

    void badValues() {
        QFETCH(QString, path);
        QFETCH(QString, name);
        QFETCH(QString, value);
        const int task = m_site->addTask();
        const QVariantMap before = m_site->task(task);
        const int tasks = m_site->count("task"), requests = m_site->count("taskpop");
        QMap<QString, QString> params{{"snids", "1"}, {"fileids", "1"}};
        if (path != "/user/edit_task")
            params["start_time"] = "8:0:0";
        params["taskid"] = id(task);
        params[name] = value;
        HttpParams list;
        for (auto it = params.cbegin(); it != params.cend(); ++it)
            list.append({it.key(), it.value()});
        QTEST(m_site->call(path, list).info(), "word");
        QCOMPARE(m_site->task(task), before);
        QCOMPARE(m_site->count("task"), tasks);
        QCOMPARE(m_site->count("taskpop"), requests);
    }

    void addListGet() {
        const int task =
            m_site->addTask({{"startdate", "2026-1-5"}, {"enddate", "2026-12-24"}, {"weeks", "1111100"}});
        const QVariantMap row = m_site->task(task);
        QCOMPARE(row["start_time"].toInt(), 27000);
        QCOMPARE(row["startdate"].toInt(), 20458);
        QCOMPARE(row["enddate"].toInt(), 20811);
        QCOMPARE(row["task_name"].toString(), "first bell");
        QCOMPARE(row["snids"].toString(), "1,2");
        QCOMPARE(row["fileids"].toString(), "1,2,1");
        QCOMPARE(row["enable"].toInt(), 1);
        QCOMPARE(row["kind"].toInt(), 1);
        QCOMPARE(m_site->members("devseedid", "taskseed", task), (QList<int>{1, 2}));
        QCOMPARE(m_site->members("fileid", "taskfile", task), (QList<int>{1, 2, 1}));

        const QJsonArray listed = m_site->call("/user/list_task")["taskary"].toArray();
        const QJsonObject last = listed.last().toObject();
        QCOMPARE(last["tasktime"].toString(), "7:30:0");
        QCOMPARE(last["start_time"].toInt(), 27000);
        QCOMPARE(last["startdate"].toString(), "2026-1-5");
        QVERIFY(last.contains("groupid"));

        const QJsonObject one = m_site->call("/user/getone_task", {{"taskid", id(task)}}).json();
        QCOMPARE(one["enddate"].toString(), "2026-12-24");
        QList<int> files;
        for (const QJsonValue& file : one["filelistary"].toArray()) {
            QCOMPARE(file["id"], file["fileid"]);
            files += file["fileid"].toInt();
        }
        QCOMPARE(files, (QList<int>{1, 2, 1}));
        QCOMPARE(one["filelistary"].toArray()[0].toObject()["filenamebase64"].toString(), "bmFtZQ==");
        const QJsonObject device = one["devlistary"].toArray()[1].toObject();
        QCOMPARE(device["devseedid"].toInt(), 2);
        QCOMPARE(device["id"].toInt(), 2);
        QCOMPARE(QByteArray::fromBase64(device["device_namebase64"].toString().toLatin1()),
                 "speaker " + QByteArray(32, 'b'));
    }

    void lengthOfTheFilesWhenNoneIsGiven() {
        const HttpReply reply = m_site->call(
            "/user/add_task",
            {{"snids", ""}, {"fileids", "1|2|1"}, {"start_time", "0:0:0"}, {"kind", "2"}, {"len", ""}});
        const QVariantMap row = m_site->task(reply["taskid"].toInt());
        QCOMPARE(row["len"].toInt(), 1200);
        QCOMPARE(row["startdate"].toInt(), 0);
        QCOMPARE(row["week"].toString(), "1111111");
    }

    void edit() {
        const int task = m_site->addTask();
        const HttpReply reply = m_site->call(
            "/user/edit_task",
            form("start_time=23:59:59&task_name=@userid DQQQlen&len= 700 &week=&kind=2&jiange=3&enable=0"
                 "&startdate=2027-01-01&enddate=&taskid=" +
                 id(task)));
        QCOMPARE(reply["EF"].toInt(), 1);
        const QVariantMap row = m_site->task(task);
        QStringList values;
        for (const char* column :
             {"start_time", "task_name", "len", "week", "kind", "jiange", "enable", "startdate", "enddate"})
            values += row[column].toString();
        QCOMPARE(values,
                 (QStringList{"86399", "@userid DQQQlen", "700", "1111111", "2", "3", "0", "20819", "0"}));
        const QJsonObject nothing = m_site->call("/user/edit_task", {{"taskid", id(task)}}).json();
        QVERIFY(!nothing["res"].toBool());
        QVERIFY(nothing["sqline"].toString().startsWith("UPDATE  `task` SET "));
    }

    void members() {
        const int task = m_site->addTask();
        QVERIFY(m_site->call("/user/editsns_task", {{"taskid", id(task)}, {"snids", "2|2"}}).res());
        QVERIFY(m_site->call("/user/editfiles_task", {{"taskid", id(task)}, {"fileids", "2,2"}}).res());
        QCOMPARE(m_site->members("devseedid", "taskseed", task), QList<int>{2});
        QCOMPARE(m_site->members("fileid", "taskfile", task), (QList<int>{2, 2}));
        QCOMPARE(m_site->task(task)["snids"].toString(), "2");
        QVERIFY(m_site->call("/user/editsns_task", {{"taskid", id(task)}, {"snids", ""}}).res());
        QVERIFY(m_site->members("devseedid", "taskseed", task).isEmpty());
    }

    void othersTasksAreSafe() {
        const int task = m_site->addTask();
        const QVariantMap before = m_site->task(task);
        const int requests = m_site->count("taskpop");
        const HttpParams params = m_site->other.params(
            {{"taskid", id(task)}, {"snids", "3"}, {"fileids", "1"}, {"task_name", "mine"}});
        for (const char* path : {"/user/editsns_task", "/user/editfiles_task", "/user/del_task",
                                 "/user/starttask", "/user/stoptask", "/user/getone_task"})
            QCOMPARE(m_site->post(path, params).info(), "ER_REJECT");
        for (const char* path : {"/user/edit_task", "/user/enabletask", "/user/disabletask"})
            QCOMPARE(m_site->post(path, params)["EF"].toInt(-1), 0);
        QCOMPARE(m_site->task(task), before);
        QCOMPARE(m_site->members("devseedid", "taskseed", task), (QList<int>{1, 2}));
        QCOMPARE(m_site->members("fileid", "taskfile", task), (QList<int>{1, 2, 1}));
        QCOMPARE(m_site->count("taskpop"), requests);
    }

    /// Of an account whose row is gone, tasks may be left: nobody comes at them without a token.
    void deletedUsersTasksAreSafe() {
        const QString gone = "4711";
        const QString task = id(m_site->addTask());
        m_site->service->sql("UPDATE task SET userid = " + gone + " WHERE id = " + task);
        const QVariantMap before = m_site->task(task.toInt());
        const auto post = [&](const char* path) {
            return m_site->post(path, {{"id", gone}, {"token", ""}, {"taskid", task}, {"enable", "0"}});
        };
        for (const char* path : {"/user/edit_task", "/user/enabletask", "/user/disabletask"})
            QCOMPARE(post(path)["EF"].toInt(-1), 0);
        for (const char* path : {"/user/getone_task", "/user/starttask", "/user/stoptask", "/user/del_task"})
            QCOMPARE(post(path).info(), "ER_REJECT");
        QVERIFY(post("/user/list_task")["taskary"].toArray().isEmpty());
        QCOMPARE(m_site->task(task.toInt()), before);
    }

    void enableDelete() {
        const int task = m_site->addTask();
        QCOMPARE(m_site->call("/user/disabletask", {{"taskid", id(task)}})["EF"].toInt(), 1);
        QCOMPARE(m_site->task(task)["enable"].toInt(), 0);
        QCOMPARE(m_site->call("/user/enabletask", {{"taskid", id(task)}})["EF"].toInt(), 1);
        QCOMPARE(m_site->task(task)["enable"].toInt(), 1);
        QVERIFY(m_site->call("/user/del_task", {{"taskid", id(task)}}).res());
        QVERIFY(m_site->task(task).isEmpty());
        QVERIFY(m_site->members("devseedid", "taskseed", task).isEmpty());
        QVERIFY(m_site->members("fileid", "taskfile", task).isEmpty());
    }

    void plans() {
        const int inPlan = m_site->addTask(), outside = m_site->addTask();
        const QString plan = id(m_site->call("/user/addplant", {{"pname", "Früh"}})["pid"].toInt());
        QVERIFY(m_site->call("/user/plantedittask", {{"pid", plan}, {"taskid", id(inPlan)}}).res());
        const QJsonObject listed = m_site->call("/user/listplant")["plantary"].toArray().last().toObject();
        QCOMPARE(listed["groupname"].toString(), "Früh");
        QCOMPARE(listed["pnameb64"].toString(), "RnLDvGg=");
        QCOMPARE(listed["taskids"].toArray(), QJsonArray{inPlan});
        QVERIFY(m_site->post("/user/plantdisable", m_site->other.params({{"pid", plan}}))["EF"].toInt() == 0);
        QCOMPARE(m_site->call("/user/plantdisable", {{"pid", plan}})["EF"].toInt(), 1);
        QCOMPARE(m_site->call("/user/plantdisable", {{"pid", "0"}}).info(), "ER_REJECT");
        QCOMPARE(m_site->task(inPlan)["enable"].toInt(), 0);
        QCOMPARE(m_site->task(outside)["enable"].toInt(), 1);
        QVERIFY(m_site->call("/user/plantenable", {{"pid", plan}}).res());
        QCOMPARE(m_site->task(inPlan)["enable"].toInt(), 1);
        QCOMPARE(m_site->post("/user/deleteplant", m_site->other.params({{"pid", plan}})).info(),
                 "ER_REJECT");
        QCOMPARE(m_site->task(inPlan)["groupid"].toString(), plan);
        QVERIFY(m_site->call("/user/deleteplant", {{"pid", plan}}).res());
        QCOMPARE(m_site->task(inPlan)["groupid"].toInt(), 0);
    }

    void startTwice() {
        const int task = m_site->addTask();
        const QString row = QStringLiteral("taskpop WHERE taskid = %1 AND info = 'webstart'").arg(task);
        QVERIFY(m_site->call("/user/starttask", {{"taskid", id(task)}}).res());
        QCOMPARE(m_site->count(row), 1);
        QCOMPARE(m_site->call("/user/starttask", {{"taskid", id(task)}}).info(), "Task is Working");
        QCOMPARE(m_site->count(row), 1);
    }

    void stopWords() {
        QFETCH_GLOBAL(int, kind);
        if (kind != 0)
            QSKIP("a task queue would take the requests away");
        const int task = m_site->addTask();
        const auto stop = [&] {
            return m_site->call("/user/stoptask", {{"taskid", id(task)}});
        };
        const auto sql = [&](const QString& statement) {
            m_site->service->sql(statement);
        };
        QCOMPARE(stop().info(), "fuckU_ass_hole");
        sql(QStringLiteral("UPDATE task SET statu = 1 WHERE id = %1").arg(task));
        QVERIFY(stop().res());
        QCOMPARE(stop().info(), "fuckU_ass_hole1");
        sql("ALTER TABLE taskpop RENAME TO gone");
        QCOMPARE(stop().info(), "fuckU_ass_hole2");
        sql("ALTER TABLE gone RENAME TO taskpop");
    }

    void temporaryPlays() {
        const HttpParams request{
            {"snids", "1|2|3"}, {"fileids", "2|1"}, {"len", "100"}, {"playmode", "3"}, {"jiange", "4"}};
        const int play = m_site->call("/user/tmpstartpl", request)["tmpid"].toInt();
        const auto row = [&] {
            return m_site->service->sql("SELECT * FROM taskpop WHERE id = " + id(play)).value(0);
        };
        QCOMPARE(row()["seeds"].toString(),
                 QString(32, 'a') + '|' + QString(32, 'b')); // the third is another's
        QCOMPARE(row()["urls"].toString(), "mp3/2.mp3|mp3/1.mp3");
        QCOMPARE(row()["len"].toInt(), 100);
        QCOMPARE(row()["playmode"].toInt(), 3);
        QCOMPARE(row()["ip"].toString(), "127.0.0.1");
        QCOMPARE(row()["port"].toInt(), int(m_site->service->commandPort6()));
        QFETCH_GLOBAL(int, kind);
        if (kind == 0)
            m_site->service->sql(QStringLiteral("UPDATE taskpop SET status = '11' WHERE id = %1").arg(play));
        QVERIFY(waitFor([&] { return row()["status"].toString() == "11"; }));
        const QJsonObject listed = m_site->call("/user/tmplistpl")["list"].toArray().last().toObject();
        QCOMPARE(listed["tmpid"].toInt(), play);
        QCOMPARE(listed["task_name"].toString(), "PLAYTMP_" + id(play));
        QCOMPARE(m_site->post("/user/tmpstoppl", m_site->other.params({{"tpid", id(play)}})).info(),
                 "ER_REJECT");
        QVERIFY(m_site->call("/user/tmpstoppl", {{"tpid", id(play)}}).res());
        if (kind != 0)
            QVERIFY(waitFor([&] { return row()["status"].toString() == "0"; }));
        else
            QCOMPARE(
                m_site->count(
                    QStringLiteral("taskpop WHERE taskid = %1 AND status = '12' AND kind = '2'").arg(play)),
                1);
    }

private:
    std::map<int, std::unique_ptr<Site>> m_sites;
    Site* m_site = nullptr;
};

int main(int argc, char** argv) {
    return runTest<TasksApiTest>(argc, argv);
}
#include "tasks_api_test.moc"
