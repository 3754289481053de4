// Devices, groups and payments: what each path asks for, answers and changes; on every database kind.
#include "support/apiworld.h"
#include "support/speakers.h"
#include "support/table.h"
#include "support/testmain.h"

namespace {

const char* const unknownUser = R"({"res":false,"info":"_FALSE5","code":-1})";
const char* const wrongToken = R"({"res":false,"info":"_FALSE6","code":-2})";

const char* const deviceWord = "ParERuser_add_dev";

HttpParams replaced(HttpParams params, const HttpParams& others) {
    for (auto& param : params) {
        for (const auto& other : others) {
            if (param.first == other.first)
                param.second = other.second;
        }
    }
    return params;
}

HttpParams without(HttpParams params, int index) {
    params.removeAt(index);
    return params;
}

} // namespace

class ApiRoutesTest : public QObject {
    Q_OBJECT
private slots:
    void cleanupTestCase() { ApiWorld::stopAll(); }

    void initTestCase_data() {
        const Table<int, bool> row{"kind", "hardened"};
        row("kind 0", 0, false);
        row("kind 3", 3, false);
        row("kind 1", 1, false);
        row("kind 3 hardened", 3, true);
    }

    /// What an answer holds as fixed and in the safe ways. who: "alice", "bob" or nobody, who sends no id
    /// and token; a path after "GET " is asked for by GET. A refusal must not change any row.
    void refusesAsConfigured_data() {
        const Table<QString, QString, QString, QByteArray, QByteArray> row{"who", "path", "params", "asFixed",
                                                                           "asHardened"};
        const QByteArray nothing = R"({"res":true,"taskary":[]})";
        row("an unknown account owns nothing", "", "/user/list_task", "id=99999&token=", nothing, nothing);
        const QByteArray done = R"({"res":true})";
        const QByteArray unfit = R"({"res":false,"info":"Paruser"})";
        const QByteArray wrongToken = R"({"res":false,"info":"_FALSE6","code":-2})";
        const QByteArray rejected = R"({"res":false,"info":"ER_REJECT"})";
        for (const char* task : {"snids=12&fileids=51", "snids=12|21&fileids=51", "snids=12&fileids=51|61",
                                 "snids=999&fileids=51", "snids=&fileids="}) {
            const bool own =
                qstrcmp(task, "snids=12&fileids=51") == 0 || qstrcmp(task, "snids=&fileids=") == 0;
            row(QByteArray("new task ") + task, "alice", "/user/add_task",
                QString(task) + "&start_time=1:0:0&len=60", done, own ? done : rejected);
        }
        row("a task's foreign speaker", "alice", "/user/editsns_task", "taskid=71&snids=11|21", done,
            rejected);
        row("a task's own speakers", "alice", "/user/editsns_task", "taskid=71&snids=12|11", done, done);
        row("a task's foreign file", "alice", "/user/editfiles_task", "taskid=71&fileids=61", done, rejected);
        row("a foreign speaker", "bob", "/user/urlstop", "snlist=" + ApiWorld::lamp(), done, done);
        const QString play = "plantname=p&filename=f&dname=d&fb=B&sn=" + ApiWorld::lamp() +
                             "&snlist=" + ApiWorld::lamp() + "&url=http://x/";
        for (const char* path : {"/user/urlplay", "/user/urlq39play", "/user/wplantadd", "/user/wfilerg"}) {
            const QByteArray served = qstrcmp(path, "/user/wfilerg") == 0
                                          ? QByteArray(R"({"res":false,"info":"unline_error"})")
                                          : done;
            row(path + QByteArray(" of two lines"), "alice", path, play + "a%0Ab", unfit, unfit);
            row(path + QByteArray(" for a shell"), "alice", path, play + "a$(b)", served, unfit);
            row(path + QByteArray(" as usual"), "alice", path, play + "a?b=%25%26c=~1", served, served);
        }
        row("speakers online", "", "/user/olist", "", done, unfit);
        row("a plan's number alone", "", "GET /user/startwarning", "pltid=9",
            R"({"res":false,"info":"snlist_error","code":-1})", wrongToken);
        for (const char* path : {"/user/seemyoder", "/user/seemydaoqishebei"}) {
            row(path + QByteArray(" of another"), "bob", path, "userid=1", done, wrongToken);
            row(path + QByteArray(" of its own"), "alice", path, "userid=1", done, done);
            row(path + QByteArray(" of nobody"), "", path, "userid=99999", done,
                R"({"res":false,"info":"_FALSE5","code":-1})");
        }
    }

    void refusesAsConfigured() {
        QFETCH(QString, who);
        QFETCH(QString, path);
        QFETCH(QString, params);
        QFETCH(QByteArray, asFixed);
        QFETCH(QByteArray, asHardened);
        QFETCH_GLOBAL(bool, hardened);
        ApiWorld& world = this->world();
        const QString before = world.snapshot();
        const HttpParams sent = who == "alice" ? world.alice.params(form(params))
                                : who == "bob" ? world.bob.params(form(params))
                                               : form(params);
        HttpReply reply = path.startsWith("GET ") ? world.service.http().get(path.mid(4) + '?' + params)
                                                  : world.service.http().postForm(path, sent);
        if (path.startsWith("GET ") && reply.body.endsWith("GET"))
            reply.body.chop(3);
        QVERIFY(holds(reply, hardened ? asHardened : asFixed));
        if (!reply.res())
            QCOMPARE(world.snapshot(), before);
    }

    /// Endpoints that ask for "id" and "token" and for `params`; `foreign` names Bob's object instead of
    /// Alice's; `check` is a statement about what the good case leaves, none: nothing may change.
    void refusesAndServes_data() {
        const Table<QString, QString, QString, QString, QByteArray, QString, QString> row{
            "params", "missingWord", "foreign", "foreignWord", "reply", "check", "expected"};
        row("/user/deviceadd", "sn=0123456789abcdef0123456789abcdef&name=加 😀", deviceWord,
            "sn=" + QString(32, 'c'), "ER_EXE", R"({"res":true,"info":"SUC"})",
            "SELECT `device_name` FROM `sbox_device_info` WHERE `device_seed` = "
            "'0123456789abcdef0123456789abcdef' and `kind` = 1 and `iswarning` = 0 and `node_id` = 1 and "
            "`userid_seed` like '%0123456789abcdef0123456789abcdef'",
            "加 😀");
        row("/user/listdev", "", "Paruser", "", "", R"({"res":true})", "", "");
        row("/user/deldevs", "snid=11", deviceWord, "snid=21", "No Need to del device",
            R"({"res":true,"EF":1,"info":"SUC"})", "SELECT `id` FROM `sbox_device_info` ORDER BY `id`",
            "12,21");
        row("/user/redevname", "devid=11&newname=hall", "ParERuser", "devid=21", "ER_REJECT",
            R"({"res":true,"EF":1,"info":"SUC"})",
            "SELECT `device_name` FROM `sbox_device_info` ORDER BY `id`", "hall,device 12,device 21");
        row("/user/resn", "devid=11&newsn=00000000000000000000000000000001", "ParERuser", "devid=21",
            "ER_REJECT", R"({"res":true,"EF":1,"info":"SUC"})",
            "SELECT `device_seed` FROM `sbox_device_info` WHERE `id` = 11",
            "00000000000000000000000000000001");
        row("/user/addgname", "gname=yard", deviceWord, "", "", R"({"res":true,"info":"SUC"})",
            "SELECT `group_name` FROM `sbox_group` WHERE `id` > 41 and `nodeid` = 1", "yard");
        row("/user/listgroups", "", deviceWord, "", "", R"({"res":true})", "", "");
        row("/user/editgname", "gid=31&gname=yard", deviceWord, "gid=41", "_FALSE7",
            R"({"res":true,"info":"SUC"})", "SELECT `group_name` FROM `sbox_group` ORDER BY `id`",
            "yard,group 41");
        row("/user/editgdevs", "gid=31&devids=12|21|999|x", deviceWord, "gid=41", "_FALSE7",
            R"({"res":true,"info":"SUC","info222":1})", "SELECT `gidseed` FROM `group_seed` WHERE `gid` = 31",
            "31_bbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbb");
        row("/user/listdetailgroups", "", deviceWord, "", "", R"({"res":true})", "", "");
        row("/user/getonegdevs", "gid=31", deviceWord, "gid=41", "_FALSE7", R"({"res":true})", "", "");
        row("/user/delgroup", "gid=31", deviceWord, "gid=41", "_FALSE7", R"({"res":true,"info":"SUC"})",
            "SELECT `id` FROM `sbox_group` UNION SELECT `gid` FROM `group_seed`", "41");
    }

    void refusesAndServes() {
        QFETCH(QString, params);
        QFETCH(QString, foreign);
        QFETCH(QByteArray, reply);
        QFETCH(QString, check);
        QFETCH_GLOBAL(int, kind);
        const QString path = QTest::currentDataTag();
        if (kind == 0 && path == "/user/deviceadd")
            return;
        ApiWorld& world = this->world();
        HttpClient& http = world.service.http();
        const HttpParams good = world.alice.params(form(params));
        const QString before = world.snapshot();
        const auto post = [&](const HttpParams& sent) {
            return http.postForm(path, sent);
        };

        for (int i = 0; i < good.size(); ++i)
            QTEST(post(without(good, i)).info(), "missingWord");
        QVERIFY(holds(post(replaced(good, {{"id", "99999"}})), unknownUser));
        QVERIFY(holds(post(replaced(good, {{"id", "x"}})), unknownUser));
        QVERIFY(holds(post(replaced(good, {{"token", world.bob.token}})), wrongToken));
        QVERIFY(holds(post(replaced(good, {{"token", ""}})), wrongToken));
        if (!foreign.isEmpty())
            QTEST(post(replaced(good, form(foreign))).info(), "foreignWord");
        QCOMPARE(world.snapshot(), before);

        QVERIFY(holds(post(good), reply));
        if (!check.isEmpty())
            QTEST(world.cell(check), "expected");
        else
            QCOMPARE(world.snapshot(), before);
    }

    /// As fixed a token can be computed from the second of the login; the random part tells two apart.
    void makesTokens() {
        QFETCH_GLOBAL(bool, hardened);
        ApiWorld& world = this->world();
        const auto issued = [&] {
            return world.service.http().postForm("/user/gtoken",
                                                 form("username=alice&passwd=secret"))["token"];
        };
        if (hardened)
            QVERIFY(issued() != issued());
        else
            QVERIFY(waitFor([&] { return issued() == issued(); })); // unless the second has just ended
    }

    void checksSerials() {
        QFETCH_GLOBAL(int, kind);
        ApiWorld& world = this->world();
        const QString before = world.snapshot();
        const struct {
            QString sn;
            const char* word;
            QString refused;
        } cases[] = {
            {"", "_FALSE2", ""},
            {world.lamp() + "|", "_FALSE2", ""},
            {"abc", "_FALSE3", "abc"},
            {QString(33, 'a'), "_FALSE3", QString(33, 'a')},
            {QString(32, 'A'), "_FALSE4", QString(32, 'A')},
            {QString(31, 'a') + "'", "_FALSE4", QString(31, 'a') + "'"},
            {QString(32, 'd') + "|" + QString(32, 'e'), "_FALSE1", QString(32, 'e')},
        };
        for (const auto& c : cases) {
            const HttpReply add = asAlice("/user/deviceadd", "name=n&sn=" + c.sn);
            if (kind == 0) {
                QCOMPARE(add.info(), "no Need to add device on lite mode.");
            } else {
                QCOMPARE(add.info(), QString(c.word));
                QCOMPARE(add["sn"].toString(), c.refused);
            }
            if (!c.sn.contains('|'))
                QCOMPARE(asAlice("/user/resn", "devid=11&newsn=" + c.sn).info(), QString(c.word));
        }
        QCOMPARE(asAlice("/user/resn", "devid=11&newsn=" + world.horn()).info(), "ER_EXE");
        QCOMPARE(world.snapshot(), before);
    }

    void bindsAllOrNone() {
        QFETCH_GLOBAL(int, kind);
        if (kind == 0)
            return;
        ApiWorld& world = this->world();
        const auto add = [&](const QString& sn, const QString& kindOfDevice, const QString& name = "n") {
            return asAlice("/user/deviceadd", "sn=" + sn + "&name=" + name + "&device_kind=" + kindOfDevice);
        };
        const QString before = world.snapshot();
        QCOMPARE(add(QString(32, '1') + '|' + world.horn(), "0").info(), "ER_EXE");
        QCOMPARE(add(QString(32, '1'), "0", "it's").info(), "ER_EXE");
        QCOMPARE(world.snapshot(), before);
        QVERIFY(add(QString(32, '1') + '|' + QString(32, '2'), "1").res());
        QVERIFY(add(QString(32, '3'), "2").res());
        QCOMPARE(
            world.cell("SELECT `iswarning` FROM `sbox_device_info` WHERE `id` > 21 ORDER BY `device_seed`"),
            "99,99,0");
    }

    void listsDevicesAndGroups() {
        ApiWorld& world = this->world();
        const QJsonArray devices = asAlice("/user/listdev")["devlist"].toArray();
        QCOMPARE(devices.size(), 2);
        const QJsonObject lamp = devices[0].toObject();
        QCOMPARE(lamp["device_seed"].toString(), world.lamp());
        QCOMPARE(lamp["online"], QJsonValue(false));
        QCOMPARE(lamp["voltage"], QJsonValue(0));
        QCOMPARE(lamp["regTime"], lamp["ctime"]);
        QVERIFY(!lamp["updatetime"].toString().isEmpty());

        const QJsonArray groups = asAlice("/user/listgroups")["grouplist"].toArray();
        QCOMPARE(groups.size(), 1);
        QCOMPARE(groups[0]["group_name"].toString(), "group 31");
        const QJsonValue group = asAlice("/user/listdetailgroups")["grouplist"].toArray()[0];
        QCOMPARE(group["group_name"].toString(), "group 31");
        QCOMPARE(group["idlist"].toArray(), QJsonArray{11});
        QCOMPARE(group["members"][0]["Dname"].toString(), "device 11");
        QVERIFY(!group["members"][0]["changetime"].toString().isEmpty());
        const QJsonArray members = asAlice("/user/getonegdevs", "gid=31")["devsary"].toArray();
        QCOMPARE(members.size(), 1);
        QCOMPARE(members[0]["id"].toInt(), 11);
        QVERIFY(asAlice("/user/editgdevs", "gid=31&devids=").res());
        QCOMPARE(world.cell("SELECT `gid` FROM `group_seed`"), "41");
    }

    void showsLiveState() {
        ApiWorld& world = this->world();
        const QString sn(32, 'd'); // of no other test: the service goes on writing what it knows of it
        world.service.giveSpeakers(world.alice, {sn});
        const auto speaker = onlineFleet(speakersAt(world.service, sn.toLatin1()), 1);
        HttpClient& http = world.service.http();
        const auto listed = [&] {
            return http.postForm("/user/olist", world.alice.params())["devlist"].toArray();
        };
        QVERIFY(waitFor([&] { return listed().size() == 1; }));
        const QJsonObject live = listed()[0].toObject();
        QCOMPARE(live["seed"].toString(), sn);
        QCOMPARE(live.keys().join(' '), "debug seed status vol voltage");
        const QJsonArray devices = asAlice("/user/listdev")["devlist"].toArray();
        QCOMPARE(devices.size(), 3);
        for (const QJsonValue& device : devices)
            QCOMPARE(device["online"].toBool(), device["device_seed"].toString() == sn);
        speaker->stop();
        QVERIFY(waitFor([&] { return listed().isEmpty(); }));
    }

    void servesWebLogins() {
        ApiWorld& world = this->world();
        HttpClient& http = world.service.http();
        const HttpParams login{{"username", "alice"}, {"passwd", "secret"}};
        const struct {
            const char* path;
            const char* list = "devlist";
            int devices = 2;
            bool alsoGet = false;
        } cases[] = {
            {"/get_devicelistweb.php", "dataJson", 2, true},
            {"/user/get_user_info.php"},
            {"/get_user_info.php"},
            {"/user/get_user_infokvt.php", "devlist", 1},
            {"/get_user_infokvt.php", "devlist", 1},
            {"/get_user_infoh.php"},
        };
        for (const auto& c : cases) {
            const QString query = QString("%1?username=alice&passwd=secret").arg(c.path);
            const HttpReply reply = http.postForm(c.path, login);
            QCOMPARE(http.get(query).body, c.alsoGet ? reply.body : QByteArray("GET"));
            QVERIFY(reply.res());
            QVERIFY(!reply.body.contains("secret") && !reply.body.contains("user_pass"));
            QCOMPARE(reply[c.list].toArray().size(), c.devices);
            if (c.alsoGet) {
                QCOMPARE(reply[c.list][0]["node_name"].toString(), "node1");
                continue;
            }
            QCOMPARE(reply["user"]["id"].toInt(), world.alice.id);
            QCOMPARE(reply["node"]["id"].toInt(), 1);
            for (const HttpParams& bad : {without(login, 0), without(login, 1)})
                QCOMPARE(http.postForm(c.path, bad).info(), "ParER");
            QCOMPARE(http.postForm(c.path, replaced(login, {{"passwd", "no"}})).info(), "ER_REJECT");
            QCOMPARE(http.postForm(c.path, replaced(login, {{"passwd", "' or '1' = '1"}})).info(), "ER_EXE");
        }
        const QJsonArray groups = http.postForm("/get_user_infoh.php", login)["grouplist"].toArray();
        QCOMPARE(groups[0]["members"][0]["seed"].toString(), world.lamp());
        QCOMPARE(http.postForm("/get_user_node.php", login).body, QByteArray());
    }

    void addsAlarmDevices() {
        ApiWorld& world = this->world();
        const HttpParams good =
            form("username=alice&passwd=secret&name=gate&sed=" + QString("9").rightJustified(32, '0'));
        for (const char* path : {"/add_user_devices_cross.php", "/user/add_user_devices_cross.php"}) {
            world.reset();
            const QString before = world.snapshot();
            const auto add = [&](const HttpParams& params) {
                return world.service.http().postForm(path, params);
            };
            for (int i = 0; i < good.size(); ++i)
                QCOMPARE(add(without(good, i)).info(), "ParER");
            QCOMPARE(add(replaced(good, {{"passwd", "x"}})).info(), "ER_REJECT");
            QCOMPARE(add(replaced(good, {{"sed", "x"}})).info(), "_FALSE3");
            QCOMPARE(add(replaced(good, {{"sed", world.horn()}})).info(), "ER_EXE");
            QCOMPARE(world.snapshot(), before);
            QVERIFY(add(good).res());
            const QString key = QString::number(world.alice.id) + good[3].second;
            QCOMPARE(world.cell("SELECT `device_name` FROM `sbox_device_info` WHERE `iswarning` = 99 and "
                                "`tag1` = 'tg1' and `userid_seed` = '" +
                                key + "'"),
                     "gate");
        }
    }

    void recordsPayments() {
        ApiWorld& world = this->world();
        HttpClient& http = world.service.http();
        const QString userid = QString::number(world.alice.id);
        const HttpParams good =
            form("overtime=2200-02-03&fei=99.5&info=one year&sn=" + world.lamp() + "&userid=" + userid);
        const auto pay = [&](const HttpParams& params) {
            return http.postForm("/user/odds_fuckpay", params);
        };
        const QString before = world.snapshot();
        for (int i = 0; i < good.size(); ++i)
            QCOMPARE(pay(without(good, i)).info(), "ParER");
        QCOMPARE(pay(replaced(good, {{"overtime", "soon"}})).info(), "ParER");
        QCOMPARE(pay(replaced(good, {{"info", "it's"}})).info(), "ER_EXE");
        QCOMPARE(world.snapshot(), before);

        QVERIFY(holds(pay(good), R"({"res":true,"EF":1})"));
        QVERIFY(
            holds(pay(replaced(good, {{"sn", world.bell()}, {"info", "next"}})), R"({"res":true,"EF":0})"));
        const QJsonArray paid =
            http.postForm("/user/seemyoder", world.alice.params({{"userid", userid}}))["data"].toArray();
        QCOMPARE(paid.size(), 2);
        QCOMPARE(paid[0]["info"].toString(), "next");
        QCOMPARE(paid[1]["fei"].toVariant().toDouble(), 99.5);
        const QJsonArray due =
            http.postForm("/user/seemydaoqishebei", world.alice.params({{"userid", userid}}))["data"]
                .toArray();
        QCOMPARE(due.size(), 1);
        QCOMPARE(due[0]["device_name"].toString(), "device 11");
        QCOMPARE(due[0]["overtime"].toString(), "2200-02-03");
        for (const char* path : {"/user/seemyoder", "/user/seemydaoqishebei"})
            QCOMPARE(http.postForm(path, {}).info(), "ParER");
    }

    void asksForThePayKey() {
        QFETCH_GLOBAL(int, kind);
        ServiceOptions options;
        options.kind = kind;
        options.settings["PayKey"] = "till";
        Service service(options);
        QVERIFY(service.start());
        const auto pay = [&](const QString& key) {
            return service.http().postForm("/user/odds_fuckpay",
                                           form("sn=x&overtime=2200-02-03&userid=1&fei=1&info=i" + key));
        };
        QCOMPARE(pay("").info(), "sskey_ER");
        QCOMPARE(pay("&sskey=wrong").info(), "sskey_ER");
        QVERIFY(pay("&sskey=till").res());
    }

    /// 10,000 devices in 200 groups are listed and put into a group whole.
    void staysLinear() {
        ApiWorld& world = this->world();
        const int devices = 10000;
        QStringList rows;
        QStringList ids;
        QStringList members;
        for (int i = 0; i < devices; ++i) {
            const QString sn = QString("%1").arg(i, 32, 16, QChar('0'));
            rows += QString("(%1, %2, 'd', '%3')").arg(1000 + i).arg(world.alice.id).arg(sn);
            members +=
                QString("(%1, '%2', %3, %4)").arg(1000 + i % 200).arg(sn).arg(world.alice.id).arg(1000 + i);
            ids += QString::number(1000 + i);
        }
        QStringList groups;
        for (int i = 0; i < 200; ++i)
            groups += QString("(%1, %2, 'g')").arg(1000 + i).arg(world.alice.id);
        world.service.sql(
            "INSERT INTO `sbox_device_info` (`id`, `user_id`, `device_name`, `device_seed`) VALUES " +
            rows.join(','));
        world.service.sql("INSERT INTO `sbox_group` (`id`, `userid`, `group_name`) VALUES " +
                          groups.join(','));
        world.service.sql("INSERT INTO `group_seed` (`gid`, `seed`, `userid`, `devid`) VALUES " +
                          members.join(','));

        QCOMPARE(asAlice("/user/listdev")["devlist"].toArray().size(), devices + 2);
        const QJsonArray listed = asAlice("/user/listdetailgroups")["grouplist"].toArray();
        QCOMPARE(listed.size(), 201);
        int total = 0;
        for (const QJsonValue& group : listed)
            total += group["members"].toArray().size();
        QCOMPARE(total, devices + 1);
        const HttpReply edited = asAlice("/user/editgdevs", "gid=31&devids=" + ids.join('|'));
        QCOMPARE(edited["info222"].toInt(), devices);
        QCOMPARE(world.cell("SELECT COUNT(*) FROM `group_seed` WHERE `gid` = 31"), QString::number(devices));
    }

private:
    static ApiWorld& world() {
        QFETCH_GLOBAL(int, kind);
        QFETCH_GLOBAL(bool, hardened);
        ApiWorld& world = ApiWorld::of(kind, hardened);
        world.reset();
        return world;
    }
    static HttpReply asAlice(const QString& path, const QString& params = {}) {
        QFETCH_GLOBAL(int, kind);
        QFETCH_GLOBAL(bool, hardened);
        ApiWorld& world = ApiWorld::of(kind, hardened);
        return world.service.http().postForm(path, world.alice.params(form(params)));
    }
};

int main(int argc, char** argv) {
    return runTest<ApiRoutesTest>(argc, argv);
}
#include "api_routes_test.moc"
