// The frame around the endpoints, accounts and tokens, and the commands that reach the speakers.
#include "support/apiworld.h"
#include "support/rawhttp.h"
#include "support/speakers.h"
#include "support/table.h"
#include "support/testmain.h"

Q_DECLARE_METATYPE(sim::Op)

class ApiFrameTest : public QObject {
    Q_OBJECT
private slots:
    void cleanupTestCase() {
        m_fleet.reset();
        ApiWorld::stopAll();
    }

    void answersPaths_data() {
        QTest::addColumn<QByteArray>("method");
        QTest::addColumn<QString>("path");
        QTest::addColumn<QByteArray>("answer"); // with "…" at its end: what the body begins with
        const QByteArray unknown = "{\n    \"docroot\": \"etc/docroot/\"…";
        const auto row = [](const char* method, const char* path, const QByteArray& answer) {
            QTest::addRow("%s %s", method, path) << QByteArray(method) << QString(path) << answer;
        };
        row("POST", "/user/test", "dbtest");
        row("POST", "/user/testing", "dbtest");
        row("POST", "/user/nowhere", unknown);
        row("POST", "/user", unknown);
        row("POST", "/user/fucktext", unknown);
        row("POST", "/user/startwarning?pltid=1", unknown);
        row("POST", "/Startwaringtask.php", unknown);
        row("POST", "/user/resnXYZ", "{\n    \"info\": \"ParERuser\"…");
        row("POST", "/user/adduser", ""); // kind 3
        row("GET", "/user/test", "GET");
        row("GET", "/user/gtoken", "GET");
        row("GET", "/checkuser.php", "GET");
        row("GET", "/user/startwarning", "{\n    \"info\": \"Paruser\",\n    \"res\": false\n}\nGET");
        row("GET", "/user/startwarning?pltid=77",
            "{\n    \"code\": -1,\n    \"info\": \"snlist_error\",\n    \"res\": false\n}\nGET");
        row("GET", "/get_devicelistweb.php", "{\n    \"info\": \"ParER\",\n    \"res\": false\n}\n");
        row("PUT", "/user/test", "PUT");
        row("DELETE", "/user/urlplay", "DELETE");
        row("OPTIONS", "/get_user_info.php", "OPTIONS");
        row("GET", "/dump?a=b%20c", "GET /dump…");
        row("GET", "/template/%3Cb%3E", "<!DOCTYPE html><html><body><h1>GET</h1><p>/template/&lt;b&gt;</p>…");
    }

    void answersPaths() {
        QFETCH(QByteArray, method);
        QFETCH(QString, path);
        QFETCH(QByteArray, answer);
        const HttpReply reply = ApiWorld::of(3).service.http().request(method, path);
        QCOMPARE(reply.status, 200);
        if (path.startsWith("/user")) {
            QCOMPARE(reply.headers["content-type"], "application/json");
            QCOMPARE(reply.headers["access-control-allow-origin"], "*");
        }
        const QByteArray more = "…";
        if (answer.endsWith(more))
            QVERIFY2(reply.body.startsWith(answer.chopped(more.size())), reply.body);
        else
            QCOMPARE(reply.body, answer);
        QCOMPARE(ApiWorld::of(3).service.http().request(method, "/nowhere").status == 200, false);
    }

    void readsUniApp_data() {
        const Table<QByteArray, QByteArray> row{"body", "answer"};
        const QByteArray unreadable = R"({"res":"false","info":"uni_error2"})";
        const QByteArray noKeys = R"({"res":"false","info":"uni_error1"})";
        const QByteArray unknownUser =
            "{\n    \"code\": -1,\n    \"info\": \"_FALSE5\",\n    \"res\": false\n}\n";
        const QByteArray wrongToken =
            "{\n    \"code\": -2,\n    \"info\": \"_FALSE6\",\n    \"res\": false\n}\n";
        row("empty", {}, unreadable);
        row("not JSON", "id=5", unreadable);
        row("cut off", "{\"id\":\"5\"", unreadable);
        row("no keys", "{}", noKeys);
        row("an array", "[1]", noKeys);
        row("deep", QByteArray(100000, '['), unreadable);
        row("not text", QByteArray("\xff\xfe\x00\x01", 4), unreadable);
        row("wrong token", R"({"id":"1","token":"x"})", wrongToken);
        row("a number is empty text", R"({"id":1,"token":"x"})", unknownUser);
        row("so is an object, and null", R"({"id":{"a":[1]},"token":null})", unknownUser);
        row("missing", R"({"id":"1"})", "{\n    \"info\": \"Paruser\",\n    \"res\": false\n}\n");
    }

    void readsUniApp() {
        QFETCH(QByteArray, body);
        HttpClient& http = ApiWorld::of(3).service.http();
        QTEST(http.postUniapp("/user/listdev", body).body, "answer");
        // The header's name may be written in any case, its value not.
        QTEST(http.request("POST", "/user/listdev", body, {{"From-Header", "uniapp"}}).body, "answer");
        QCOMPARE(http.request("POST", "/user/listdev", body, {{"from-header", "UniApp"}}).info(), "Paruser");
    }

    void issuesTokens_data() { addKinds({0, 3, 1}); }

    void issuesTokens() {
        QFETCH(int, kind);
        ApiWorld& world = ApiWorld::of(kind);
        HttpClient& http = world.service.http();
        const Account user = world.service.addAccount("login" + QString::number(kind));
        const HttpParams login{{"username", " " + user.name + " "}, {"passwd", user.password}};
        for (const char* path : {"/user/gtoken", "/user/checkuser.php", "/checkuser.php"}) {
            QCOMPARE(http.postForm(path, {login[0]}).info(), "ParERuser_gtoken");
            QCOMPARE(http.postForm(path, {login[1]}).info(), "ParERuser_gtoken");
            QCOMPARE(http.postForm(path, {login[0], {"passwd", "no"}}).info(), "ER_REJECT");
        }
        for (const char* name :
             {"x' or '1'='1", "o'brien", "'; DELETE FROM sbox_users; --", "\\' OR 1=1 -- "}) {
            const HttpParams quoted{{"username", name}, {"passwd", "y' OR 'a'='a"}};
            QCOMPARE(http.postForm("/user/gtoken", quoted).info(), "ER_REJECT");
            QCOMPARE(http.postForm("/checkuser.php", quoted).info(), "ER_EXE");
        }
        const HttpReply checked = http.postForm("/checkuser.php", login);
        QCOMPARE(checked.json().keys().join(' '),
                 "beizhu ctime info mask master_id nickname res token user_level userid");
        QCOMPARE(checked["userid"].toInt(), user.id);

        // A token carries the second in which it was issued.
        HttpReply issued;
        QVERIFY(waitFor([&] {
            issued = http.postForm("/user/gtoken", login);
            return issued["token"].toString() != user.token;
        }));
        const QString token = issued["token"].toString();
        QVERIFY(QRegularExpression("^[0-9a-f]{40}$").match(token).hasMatch());
        QVERIFY(holds(issued, R"({"res":true,"info":"SUC","master_id":0})"));
        QCOMPARE(world.cell(QString("SELECT `token` FROM `sbox_users` WHERE `id` = %1").arg(user.id)), token);
        QCOMPARE(http.postForm("/user/listdev", user.params()).info(), "_FALSE6");
        QVERIFY(http.postForm("/user/listdev", {{"id", QString::number(user.id)}, {"token", token}}).res());
    }

    /// The sixth wrong answer within a minute is late. The only worker answers others meanwhile.
    void slowsWrongLogins() {
        ServiceOptions options;
        options.settings["listener/minThreads"] = 1;
        options.settings["listener/maxThreads"] = 1;
        Service service(options);
        QVERIFY(service.start());
        const Account erin = service.addAccount("erin");
        HttpClient& http = service.http();
        for (int i = 0; i < 5; ++i)
            QCOMPARE(http.postForm("/checkuser.php", form("username=erin&passwd=no")).info(), "ER_REJECT");
        const QByteArray body = "username=erin&passwd=no";
        RawHttp guesser(service.httpPort());
        guesser.send("POST /get_user_info.php HTTP/1.1\r\nHost: x\r\nContent-Type: "
                     "application/x-www-form-urlencoded\r\nContent-Length: " +
                     QByteArray::number(body.size()) + "\r\n\r\n" + body);
        QVERIFY(service.waitForLog("wrong login \"erin\" from \"127.0.0.1\" count 5"));
        QCOMPARE(http.postForm("/checkuser.php", form("username=erin2&passwd=no")).info(), "ER_REJECT");
        QVERIFY(http.postForm("/user/gtoken", form("username=erin&passwd=secret")).res());
        QVERIFY(!guesser.hasData());
        QVERIFY(guesser.receive().body.contains("ER_REJECT"));
        guesser.send("POST /checkuser.php?" + body + " HTTP/1.1\r\nHost: x\r\nContent-Length: 0\r\n\r\n");
        QCOMPARE(http.postForm("/user/listdev", erin.params()).status, 200);
        QCOMPARE(service.stop(), 0); // what waits is sent
    }

    /// Accounts that were stored without a token get one when the service starts; those that are stored
    /// while it runs are unknown until they log in.
    void givesEveryAccountAToken() {
        Service service;
        service.sql(
            "INSERT INTO `sbox_users` (`id`, `user_name`, `user_pass`, `token`) VALUES (5, 'old', 'p', '')");
        QVERIFY(service.start());
        QCOMPARE(service.http().postForm("/user/listdev", {{"id", "5"}, {"token", ""}}).info(), "_FALSE6");
        const QString token = service.sql("SELECT `token` FROM `sbox_users`")[0]["token"].toString();
        QCOMPARE(token.size(), 40);
        QVERIFY(service.http().postForm("/user/listdev", {{"id", "5"}, {"token", token}}).res());
        service.sql(
            "INSERT INTO `sbox_users` (`id`, `user_name`, `user_pass`, `token`) VALUES (6, 'new', 'p', 't')");
        const HttpParams latecomer{{"id", "6"}, {"token", "t"}};
        QCOMPARE(service.http().postForm("/user/listdev", latecomer).info(), "_FALSE5");
        QCOMPARE(service.stop(), 0);
        QVERIFY(service.start());
        QVERIFY(service.http().postForm("/user/listdev", latecomer).res());
    }

    void addsAccounts() {
        ApiWorld& world = ApiWorld::of(0);
        const auto add = [&](HttpParams params) {
            return world.service.http().postForm("/user/adduser", params);
        };
        const QPair<QString, QString> key{"sskey", Service::serviceKey()};
        const QPair<QString, QString> name{"username", "carol"};
        const QPair<QString, QString> password{"passwd", "p"};
        const QString before = world.snapshot();
        QCOMPARE(add({key, name}).info(), "ParER");
        QCOMPARE(add({name, password}).info(), "ParER");
        QCOMPARE(add({{"sskey", "no"}, name, password}).info(), "sskey_ER");
        QCOMPARE(add({{"sskey", ""}, name, password}).info(), "sskey_ER");
        QCOMPARE(add({key, name, password, {"preid", "9999"}}).info(), "REID_ER");
        QCOMPARE(add({key, name, password, {"preid", "x"}}).info(), "REID_ER");
        QCOMPARE(add({key, {"username", "alice"}, password}).info(), "ER_EXE");
        QCOMPARE(world.snapshot(), before);
        const HttpReply added = add({key, name, password, {"preid", QString::number(world.alice.id)}});
        QVERIFY(holds(added, R"({"res":true,"username":"carol"})"));
        QCOMPARE(world.cell("SELECT `master_id` FROM `sbox_users` WHERE `user_name` = 'carol'").toInt(),
                 world.alice.id);
        QVERIFY(world.service.http()
                    .postForm("/user/listdev", {{"id", QString::number(added["userid"].toInt())},
                                                {"token", added["token"].toString()}})
                    .res());
    }

    void resetsTheDatabase() {
        HttpParams params{{"sskey", "no"}, {"username", "a"}, {"passwd", "b"}};
        HttpClient& full = ApiWorld::of(3).service.http();
        QCOMPARE(full.postForm("/user/dbreset", {params[0], params[1]}).info(), "ParER");
        QCOMPARE(full.postForm("/user/dbreset", params).info(), "sskey_ER");
        params[0].second = Service::serviceKey();
        const QString before = ApiWorld::of(3).snapshot();
        QCOMPARE(full.postForm("/user/dbreset", params).info(), "config.ini_dbk_ER");
        QCOMPARE(ApiWorld::of(3).snapshot(), before);

        ServiceOptions options;
        options.kind = 0;
        Service small(options);
        QVERIFY(small.start());
        small.addAccount("dora");
        const HttpReply reset = small.http().postForm("/user/dbreset", params);
        QVERIFY(reset.res());
        QVERIFY(reset["info"].isDouble());
        QVERIFY(small.sql("SELECT * FROM `sbox_users`").isEmpty());
        QCOMPARE(small.sql("SELECT * FROM `sbox_node`").size(), 1);
        QCOMPARE(small.addAccount("dora").id, 1);
    }

    void commandsSpeakers_data() {
        // "{both}" and "{first}" are the serials; told: how many speakers
        const Table<QString, sim::Op, QByteArray, int> row{"params", "op", "contains", "told"};
        row("/user/urlplay", "url=http://127.0.0.1:1/a b.mp3&snlist={both}", sim::Op::PlayList,
            "http://127.0.0.1:1/ab.mp3", 2);
        row("/user/urlq39play", "url=http://127.0.0.1:1/c.mp3&snlist={first}|unknown|", sim::Op::Stream,
            "http://127.0.0.1:1/c.mp3A", 1);
        row("/user/urlstop", "snlist={both}", sim::Op::Stop, "", 2);
        row("/user/urlq39stop", "snlist={first}", sim::Op::Stream, ".mp35", 1);
        row("/user/editvols", "vol=7&snlist={both}", sim::Op::Volume, "V\x07", 2);
        row("/user/sndebug", "sn={first}&dsv=1", sim::Op::Debug, "IK", 1);
    }

    void commandsSpeakers() {
        QFETCH(QString, params);
        QFETCH(sim::Op, op);
        QFETCH(QByteArray, contains);
        QFETCH(int, told);
        sim::Fleet& speakers = fleet();
        ApiWorld& world = ApiWorld::of(3);
        params.replace("{both}", speakers.serials().join('|')).replace("{first}", speakers.serials()[0]);
        const HttpReply reply =
            world.service.http().postForm(QTest::currentDataTag(), world.alice.params(form(params)));
        QCOMPARE(reply.body, "{\n    \"res\": true\n}\n");
        const auto got = [&] {
            int count = 0;
            for (int i = 0; i < speakers.size(); ++i) {
                const sim::Command* command = speakers.at(i).last(op);
                count += command && command->bytes.contains(contains);
            }
            return count;
        };
        QVERIFY(waitFor([&] { return got() == told; }));
    }

    void refusesCommands() {
        ApiWorld& world = ApiWorld::of(3);
        sim::Fleet& speakers = fleet();
        const QString sn = speakers.serials()[0];
        const struct {
            const char* path;
            QString good;
            QString bad;
            const char* word = "snlist_error";
            int code = -1;
        } cases[] = {
            {"/user/urlplay", "url=u&snlist=" + sn, "url=u&snlist= "},
            {"/user/urlq39play", "url=u&snlist=" + sn, "url=u&snlist="},
            {"/user/urlstop", "snlist=" + sn, "snlist="},
            {"/user/urlq39stop", "snlist=" + sn, "snlist="},
            {"/user/editvols", "vol=3&snlist=" + sn, "vol=3&snlist="},
            {"/user/sndebug", "dsv=3&sn=" + sn, "dsv=4&sn=" + sn, "Range ER", -3},
            {"/user/sndebug", "dsv=3&sn=" + sn, "dsv=-1&sn=" + sn, "Range ER", -3},
            {"/user/sndebug", "dsv=0&sn=" + sn, "dsv=0&sn=" + sn + "0"},
        };
        for (const auto& c : cases) {
            const auto post = [&](const HttpParams& params) {
                return world.service.http().postForm(c.path, params);
            };
            const HttpParams good = world.alice.params(form(c.good));
            for (int i = 0; i < good.size(); ++i) {
                HttpParams less = good;
                less.removeAt(i);
                QCOMPARE(post(less).info(), "Paruser");
            }
            QVERIFY(holds(post(HttpParams{{"id", "999"}, {"token", "x"}} + form(c.good)),
                          R"({"info":"_FALSE5","code":-1})"));
            QVERIFY(holds(post(HttpParams{{"id", good[0].second}, {"token", "x"}} + form(c.good)),
                          R"({"info":"_FALSE6","code":-2})"));
            const HttpReply refused = post(world.alice.params(form(c.bad)));
            QCOMPARE(refused.info(), QString(c.word));
            QCOMPARE(refused["code"].toInt(), c.code);
        }
        for (const char* path : {"/user/deviceenable", "/user/devicedisable"}) {
            const auto post = [&](const HttpParams& params) {
                return world.service.http().postForm(path, params);
            };
            const QPair<QString, QString> key{"sskey", Service::serviceKey()};
            QCOMPARE(post({key}).info(), "Paruser");
            QVERIFY(holds(post({{"sskey", "no"}, {"snlist", ""}}), R"({"info":"sskey_error","code":-2})"));
            QVERIFY(holds(post({key, {"snlist", ""}}), R"({"info":"snlist_error","code":-1})"));
            QCOMPARE(post({key, {"snlist", QString(32, '6')}}).body, "{\n    \"res\": true\n}\n");
        }
        for (const sim::Op op :
             {sim::Op::PlayList, sim::Op::Stream, sim::Op::Stop, sim::Op::Volume, sim::Op::Debug})
            QCOMPARE(speakers.at(0).count(op), 0);
    }

    /// With the safe ways a foreign speaker is left out, of a list and of a task that names it all the same.
    void leavesForeignSpeakersOut() {
        ApiWorld& world = ApiWorld::of(3, true);
        world.reset();
        const auto speakers =
            onlineFleet(speakersAt(world.service), 3); // Alice's, Bob's, by mask Alice's too
        const QStringList serials = speakers->serials();
        const auto sql = [&](const QString& statement) {
            world.service.sql(QString(statement)
                                  .replace("{alice}", QString::number(world.alice.id))
                                  .replace("{bob}", QString::number(world.bob.id)));
        };
        for (int i = 0; i < 3; ++i)
            sql(QString(
                    "INSERT INTO `sbox_device_info` (`id`, `user_id`, `device_seed`) VALUES (%1, %2, '%3')")
                    .arg(81 + i)
                    .arg(i == 0 ? "{alice}" : "{bob}", serials[i]));
        sql("UPDATE `sbox_users` SET `master_id` = {bob}, `mask` = '83,11' WHERE `id` = {alice}");
        const auto told = [&](sim::Op op) {
            QString who;
            for (int i = 0; i < 3; ++i)
                who += speakers->at(i).count(op) > 0 ? 'x' : '-';
            return who;
        };
        const auto call = [&](const char* path, const QString& params) {
            return world.service.http().postForm(path, world.alice.params(form(params))).body;
        };
        QCOMPARE(call("/user/sndebug", "dsv=1&sn=" + serials[1]), "{\n    \"res\": true\n}\n");
        QCOMPARE(call("/user/editvols", "vol=7&snlist=" + serials.join('|') + "|x'y"),
                 "{\n    \"res\": true\n}\n");
        QVERIFY(waitFor([&] { return told(sim::Op::Volume) == "x-x"; }));
        QVERIFY(world.service.waitForLog("commands speakers of others, left out: 2"));

        for (const char* device : {"81", "82"})
            sql(QString("INSERT INTO `taskseed` (`taskid`, `devseedid`) VALUES (71, %1)").arg(device));
        const QByteArray task = call("/user/getone_task", "taskid=71");
        QVERIFY(task.contains(serials[0].toLatin1()) && !task.contains(serials[1].toLatin1()));
        QVERIFY(call("/user/starttask", "taskid=71").contains("SUC"));
        QVERIFY(waitFor([&] { return told(sim::Op::PlayList) == "x--"; }));
        QVERIFY(world.service.waitForLog("left out, speakers of others: 1"));
        QCOMPARE(told(sim::Op::Volume) + told(sim::Op::Debug) + told(sim::Op::PlayList), "x-x---x--");
        sql("UPDATE `sbox_users` SET `master_id` = 0, `mask` = '' WHERE `id` = {alice}");
    }

    void startsAPlanWithoutAToken() {
        sim::Fleet& speakers = fleet();
        ApiWorld& world = ApiWorld::of(3);
        world.service.sql(
            QString("INSERT INTO `warningplant` (`id`, `snids`, `url`, `name`, `userid`) VALUES "
                    "(900, '%1', 'http://127.0.0.1:1/fire.mp3', 'fire', %2)")
                .arg(speakers.serials().join('|'))
                .arg(world.bob.id));
        const HttpReply reply = world.service.http().get("/user/startwarning?pltid=900&dd.mp3");
        QCOMPARE(reply.body, "{\n    \"res\": true\n}\nGET");
        QVERIFY(waitFor(
            [&] { return speakers.at(0).last(sim::Op::Stream) && speakers.at(1).last(sim::Op::Stream); }));
        QVERIFY(speakers.at(1).last(sim::Op::Stream)->bytes.contains("http://127.0.0.1:1/fire.mp3A"));
    }

private:
    /// Two speakers that are online at the service of kind 3, with nothing on their record.
    sim::Fleet& fleet() {
        if (!m_fleet) {
            m_fleet = onlineFleet(speakersAt(ApiWorld::of(3).service), 2);
        }
        if (!waitFor([this] { return m_fleet->online() == 2; }))
            qFatal("speakers not online");
        for (int i = 0; i < m_fleet->size(); ++i)
            m_fleet->at(i).forget();
        return *m_fleet;
    }
    std::unique_ptr<sim::Fleet> m_fleet;
};

int main(int argc, char** argv) {
    return runTest<ApiFrameTest>(argc, argv);
}
#include "api_frame_test.moc"
