// Every command of the account-centred query sets: what it asks for, who may, what it gives and changes.
#include "service/querytable.h"
#include "support/apiworld.h"
#include "support/table.h"
#include "support/testmain.h"

#include <array>
#include <QRegularExpression>
#include <thread>

namespace {

/// The good case of one command. `{sub}` is Alice's sub-account, `{alice}` Alice's number.
struct QueryCase {
    HttpParams params; ///< besides the caller's "userid" and "token"
    const char* check; ///< what a write leaves: statement and value; of a read: the column to compare
    const char* expected;
    int rows = 1; ///< of a read
};

/// The good case of each command by its name.
const QMap<QString, QueryCase>& cases() {
    static const QMap<QString, QueryCase> all = [] {
        QMap<QString, QueryCase> made;
        const auto add = [&](const char* name, const QString& params, const char* check, const char* expected,
                             int rows = 1) {
            made.insert(name, {form(params), check, expected, rows});
        };
        add("listmydevice", "", "id", "11,12", 2);
        add("gtoken", "username=alice&passwd=secret", "user_name", "alice");
        add("myinfo", "", "user_name", "alice");
        add("getusersinfo", "zuserid={sub}", "user_name", "sub");
        add("changezimask", "zuserid={sub}&mask=12|x|11",
            "SELECT `mask` FROM `sbox_users` WHERE `id` = {sub}", "12,11");
        add("changezidevices", "zuserid={sub}&touserid={sub}&devids=11,21",
            "SELECT `id` FROM `sbox_device_info` WHERE `user_id` = {sub}", "11,13");
        add("newnickname", "nickname=Ali 🎵", "SELECT `nickname` FROM `sbox_users` WHERE `id` = {alice}",
            "Ali 🎵");
        add("newpasswdnick", "user_pass=secret", "SELECT `user_pass` FROM `sbox_users` WHERE `id` = {alice}",
            "secret");
        add("getusersdevice", "zuserid={sub}", "id", "13");
        add("getwplantlist", "", "name", "fire");
        add("changeuserdevicemode", "devid=11&iswarning=99",
            "SELECT `id` FROM `sbox_device_info` WHERE `iswarning` = 99 ORDER BY `id`", "11,12");
        add("getswapinfo", "", "title", "news");
        add("rmwplant", "pltid=51", "SELECT `id` FROM `warningplant`", "61");
        add("wplantadd", "snids=a|b&url=http://x/a.mp3&name=flood",
            "SELECT `snids` FROM `warningplant` WHERE `name` = 'flood' and `userid` = {alice}", "a|b");
        add("wpdevicehistory", "", "id", "12");
        add("wfilelistrg", "", "filename", "a.mp3");
        add("addziuser", "user_name=new&user_pass=p&nickname=&beizhu=&mask=11",
            "SELECT `master_id` FROM `sbox_users` WHERE `user_name` = 'new' and length(`token`) = 40 and "
            "`mask` = '11'",
            "{alice}");
        add("listzrdevs", "zuserid={sub}", "id", "12");
        add("listziuser", "", "user_name", "sub");
        add("info_edit_listziuser", "zuserid={sub}&nickname=n&beizhu=gate house",
            "SELECT `beizhu` FROM `sbox_users` WHERE `id` = {sub}", "gate house");
        add("getonegdevs", "gid=31", "id", "11");
        add("getswap_reget_info", "", "title", "news");
        add("get_user_yinsixieyi", "", "xieyi", "terms");
        add("save_user_yinsixieyi", "xieyi=new terms", "SELECT `xieyi` FROM `xieyi_mod`", "new terms");
        add("savemu38_info",
            "url=http://x/live.m3u8&title=radio&to=", "SELECT `title` FROM `swap_info` WHERE `type` = 'm3u8'",
            "radio");
        add("add_user_admin", "sskey=test-service-key&user_name=boss&user_pass=p&nickname=&beizhu=",
            "SELECT `user_level` FROM `sbox_users` WHERE `user_name` = 'boss' and `master_id` = 0 and "
            "length(`token`) = 40",
            "1");
        add("delete_swapinfo", "swapid=72", "SELECT `id` FROM `swap_info`", "71");
        add("delziuser", "zuserid={sub}", "SELECT `user_name` FROM `sbox_users` ORDER BY `id`", "alice,bob");
        add("getswap_resave_info", "url=u&title=fresh&to=t", "SELECT `title` FROM `swap_info`", "fresh");
        add("ffffmyinfo", "", "devices", "2");
        add("add_skdevsn",
            "sskey=test-service-key&sn=0000000000000000000000000000000d&overtime=2199-01-01&iccid=&pay=7",
            "SELECT `pay` FROM `snover` WHERE `sn` = '0000000000000000000000000000000d'", "7");
        add("dis_skdevsn", "sskey=test-service-key&sn=" + ApiWorld::lamp(),
            "SELECT `statu` FROM `snover` ORDER BY `sn`", "2,1");
        add("enable_skdevsn", "sskey=test-service-key&sn=" + QString(32, '9'),
            "SELECT `statu` FROM `snover` WHERE `overtime` < '2001'", "3");
        add("search_sn", "sn=" + ApiWorld::horn(), "bound", "1");
        add("get4gposition", "sn=" + ApiWorld::lamp(), "iccid", "8986");
        add("edit_chaxunmima", "zuserid={sub}&user_pass=fresh",
            "SELECT `user_name` FROM `sbox_users` WHERE `user_pass` = 'fresh'", "sub");
        add("edit_changeusername", "user_name=alice",
            "SELECT `user_name` FROM `sbox_users` WHERE `id` = {alice}", "alice");
        add("edit_skdeviccid", "sskey=test-service-key&sn=" + ApiWorld::lamp() + "&iccid=77",
            "SELECT `iccid` FROM `snover` ORDER BY `sn`", "77,8987");
        add("del_skdevsn", "sskey=test-service-key&sn=" + ApiWorld::lamp(), "SELECT `pay` FROM `snover`",
            "13");
        add("list_skdevsn", "", "sn", "aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa");
        add("edit_skdevpay", "sskey=test-service-key&sn=" + ApiWorld::lamp() + "&pay=5",
            "SELECT `pay` FROM `snover` ORDER BY `sn`", "5,13");
        add("get_skdevpay", "sn=" + ApiWorld::lamp(), "pay", "12");
        return made;
    }();
    return all;
}

} // namespace

class ApiQueriesTest : public QObject {
    Q_OBJECT
private slots:
    void cleanupTestCase() { ApiWorld::stopAll(); }

    /// Every statement has its placeholders alone in their literals, and every placeholder has a value;
    /// no command hides a later one.
    void tableIsSound() {
        const QueryTable& table = QueryTable::embedded();
        QVERIFY(table.commands().size() >= 42);
        const QRegularExpression placeholder("(.)@(\\w+)(.)");
        for (const QueryTable::Command& command : table.commands()) {
            QVERIFY2(cases().contains(command.name), qPrintable(command.name));
            for (const QString& set : command.sets)
                QCOMPARE(table.find(set, command.name), &command);
            QMap<QString, QueryTable::Type> known;
            for (const QueryTable::Parameter& parameter : command.parameters)
                known.insert(parameter.name, parameter.type);
            for (auto same = table.sameValues().begin(); same != table.sameValues().end(); ++same) {
                if (known.contains(same.value()))
                    known.insert(same.key(), known.value(same.value()));
            }
            for (const QueryTable::Step& step : command.steps) {
                auto matches = placeholder.globalMatch(step.statement);
                while (matches.hasNext()) {
                    const auto match = matches.next();
                    QVERIFY2(known.contains(match.captured(2)), qPrintable(command.name + match.captured(2)));
                    const bool isList = known.value(match.captured(2)) == QueryTable::Type::Ids;
                    QCOMPARE(match.captured(1) + match.captured(3), QString(isList ? "  " : "''"));
                }
                for (auto column = step.take.begin(); column != step.take.end(); ++column)
                    known.insert(column.key(), column.value());
            }
        }
    }

    void serves_data() {
        QTest::addColumn<int>("kind");
        QTest::addColumn<QString>("name");
        for (const int kind : {3, 1}) {
            for (const QueryTable::Command& command : QueryTable::embedded().commands())
                QTest::addRow("%s kind %d", qPrintable(command.name), kind) << kind << command.name;
        }
    }

    void serves() {
        QFETCH(QString, name);
        const QueryTable& table = QueryTable::embedded();
        const QueryTable::Command& command =
            *table.find(table.find("fnkukei", name) ? "fnkukei" : "fnckukei", name);
        const QueryCase c = cases().value(name);
        ApiWorld& world = this->world();
        // What enabling needs: the period check turns a serial of a running period on at once.
        world.service.sql(
            QString("INSERT INTO `snover` (`sn`, `overtime`, `statu`) VALUES ('%1', '2000-01-01', 2)")
                .arg(QString(32, '9')));
        if (name != "enable_skdevsn")
            world.service.sql("DELETE FROM `snover` WHERE `overtime` < '2001'");
        if (name == "delete_swapinfo")
            world.service.sql("INSERT INTO `swap_info` (`id`, `title`, `type`) VALUES (72, 'radio', 'm3u8')");
        const QString before = world.snapshot();

        QFETCH(int, kind);
        const bool isProgram = kind == 1; // each of its runs takes a while
        HttpParams good;
        for (const auto& param : paramsOf(c)) {
            for (const QueryTable::Parameter& parameter : command.parameters) {
                if (parameter.name == param.first)
                    good.append(param);
            }
        }
        for (int i = 0; i < good.size(); ++i) {
            HttpParams bad = good;
            bad.removeAt(i);
            QCOMPARE(query(name, bad).info(), "ParER");
            for (const auto& fault :
                 {HttpParams{{"userid", "99999"}}, HttpParams{{"token", world.bob.token}},
                  HttpParams{{"zuserid", QString::number(world.bob.id)}}, HttpParams{{"sskey", "wrong"}}}) {
                if (good[i].first != fault[0].first || (isProgram && fault[0].first == "userid"))
                    continue;
                bad = good;
                bad[i] = fault[0];
                QCOMPARE(query(name, bad).info(),
                         QString(fault[0].first == "sskey" ? "sskey_ER" : "ER_REJECT"));
            }
        }
        QCOMPARE(world.snapshot(), before);

        const HttpReply reply = query(name, good);
        QVERIFY2(holds(reply, R"({"res":true,"info":"SUC"})"), reply.body);
        QVERIFY(!reply.body.contains("user_pass"));
        if (command.writes) {
            QCOMPARE(reply["EF"].toInt(), 1);
            QCOMPARE(world.cell(filled(c.check)), filled(c.expected));
            return;
        }
        QStringList values;
        for (const QJsonValue& row : reply["data"].toArray())
            values += row[QString(c.check)].toVariant().toString();
        QCOMPARE(values.join(','), QString(c.expected));
        QCOMPARE(values.size(), c.rows);
        QCOMPARE(world.snapshot(), before);
    }

    void keepsOthersOut_data() { addKinds({3, 1}); }

    /// Bob, with his own good token, names what is Alice's or the site's.
    void keepsOthersOut() {
        ApiWorld& world = this->world();
        const QString before = world.snapshot();
        const struct {
            const char* command;
            HttpParams params;
        } attempts[] = {
            {"rmwplant", {{"pltid", "51"}}},
            {"changeuserdevicemode", {{"devid", "11"}, {"iswarning", "0"}}},
            {"changezimask", {{"zuserid", "{sub}"}, {"mask", "1"}}},
            {"changezimask", {{"zuserid", "{sub}"}, {"mask", "1"}, {"master_id", "{alice}"}}},
            {"delziuser", {{"zuserid", "{sub}"}}},
            {"edit_chaxunmima", {{"zuserid", "{alice}"}, {"user_pass", "x"}}},
            {"save_user_yinsixieyi", {{"xieyi", "mine"}}},
            {"getswap_resave_info", {{"url", "u"}, {"title", "t"}, {"to", "t"}}},
            {"delete_swapinfo", {{"swapid", "71"}}},
        };
        for (const auto& attempt : attempts) {
            HttpParams params{{"id", QString::number(world.bob.id)}, {"token", world.bob.token}};
            for (const auto& param : attempt.params)
                params.append(qMakePair(param.first, filled(param.second)));
            const HttpReply reply = query(attempt.command, params);
            QVERIFY2(!reply.res(), attempt.command);
            QCOMPARE(reply.info(), "ER_REJECT");
        }
        for (const char* read : {"getonegdevs", "get4gposition", "get_skdevpay"}) {
            const HttpReply reply = query(read, {{"id", QString::number(world.bob.id)},
                                                 {"token", world.bob.token},
                                                 {"gid", "31"},
                                                 {"sn", world.lamp()}});
            QVERIFY(reply.res());
            QVERIFY(reply["data"].toArray().isEmpty());
        }
        QCOMPARE(world.snapshot(), before);
    }

    void masksTheDevicesOfASubAccount_data() { addKinds({3, 1}); }

    void masksTheDevicesOfASubAccount() {
        ApiWorld& world = this->world();
        const auto seen = [&] {
            const HttpReply reply =
                query("listmydevice", {{"id", QString::number(sub())}, {"token", "subtoken"}});
            QStringList ids;
            for (const QJsonValue& row : reply["data"].toArray())
                ids += QString::number(row["id"].toInt());
            return ids.join(',');
        };
        QCOMPARE(seen(), "12,13"); // 21 is Bob's
        world.service.sql("UPDATE `sbox_users` SET `mask` = '' WHERE `user_name` = 'sub'");
        QCOMPARE(seen(), "13");
    }

    void endsTokens_data() { addKinds({3, 1}); }

    /// A new password ends the account's token, its deletion everything that was its own.
    void endsTokens() {
        ApiWorld& world = this->world();
        HttpClient& http = world.service.http();
        Account sub{this->sub(), "sub", "p", {}};
        const auto login = [&] {
            sub.token =
                http.postForm("/user/gtoken", {{"username", "sub"}, {"passwd", sub.password}})["token"]
                    .toString();
            return http.postForm("/user/listdev", sub.params()).res();
        };
        const auto sql = [&](const char* statement) {
            world.service.sql(filled(statement));
        };
        const HttpParams caller{{"id", QString::number(world.alice.id)}, {"token", world.alice.token}};
        const HttpParams master = caller + HttpParams{{"zuserid", QString::number(sub.id)}};
        QVERIFY(login());
        QVERIFY(query("edit_chaxunmima", master + HttpParams{{"user_pass", "fresh"}}).res());
        QCOMPARE(http.postForm("/user/listdev", sub.params()).info(), "_FALSE6");
        sub.password = "fresh";
        QVERIFY(login());

        sql("INSERT INTO `sbox_group` (`id`, `userid`) VALUES (91, {sub})");
        sql("INSERT INTO `group_seed` (`gid`, `userid`, `devid`) VALUES (91, {sub}, 13)");
        sql("INSERT INTO `userfile` (`id`, `userid`) VALUES (92, {sub})");
        sql("INSERT INTO `task` (`id`, `userid`, `enable`, `statu`) VALUES (93, {sub}, 0, 1)");
        sql("INSERT INTO `taskseed` (`taskid`, `devseedid`) VALUES (93, 13)");
        sql("INSERT INTO `taskfile` (`taskid`, `fileid`) VALUES (93, 92)");
        sql("INSERT INTO `taskgroup` (`userid`, `groupname`) VALUES ({sub}, 'week')");
        const QString others = "SELECT COUNT(*) FROM `%1` WHERE `%2` = %3";
        QVERIFY(query("delziuser", master).res());
        const QString gone = QString::number(sub.id);
        for (const char* table : {"sbox_group", "group_seed", "userfile", "task", "taskgroup"})
            QCOMPARE(world.cell(others.arg(table, "userid", gone)), "0");
        for (const char* table : {"taskseed", "taskfile"})
            QCOMPARE(world.cell(others.arg(table, "taskid", "93")), "0");
        QCOMPARE(world.cell(others.arg("taskpop", "taskid", "93")), "1"); // its stop
        QCOMPARE(http.postForm("/user/listdev", sub.params()).info(), "_FALSE5");
        QCOMPARE(http.postForm("/user/listdev", caller)["devlist"].toArray().size(), 3);
        QCOMPARE(world.cell("SELECT COUNT(*) FROM `userfile`"), "2");

        QVERIFY(query("newpasswdnick", caller + HttpParams{{"user_pass", "secret"}}).res());
        QCOMPARE(http.postForm("/user/listdev", caller).info(), "_FALSE6");
    }

    void refusesTheSameTexts_data() { addKinds({3, 1}); }

    /// What the login could not take afterwards.
    void refusesTheSameTexts() {
        ApiWorld& world = this->world();
        const QString before = world.snapshot();
        const HttpParams caller{{"userid", QString::number(world.alice.id)}, {"token", world.alice.token}};
        for (const char* text : {"O'Hara", "back\\slash"}) {
            for (const auto& [command, name] :
                 {std::pair("edit_changeusername", "user_name"), std::pair("newpasswdnick", "user_pass"),
                  std::pair("newnickname", "nickname")})
                QCOMPARE(query(command, caller + HttpParams{{name, text}}).info(), "ER_EXE");
        }
        QCOMPARE(query("gtoken", {{"username", "alice"}, {"passwd", "'"}}).info(), "ER_EXE");
        QCOMPARE(world.snapshot(), before);
    }

    void keepsLoginNamesApart_data() { addKinds({3, 1}); }

    void keepsLoginNamesApart() {
        ApiWorld& world = this->world();
        const QString before = world.snapshot();
        const HttpParams caller{{"id", QString::number(world.alice.id)}, {"token", world.alice.token}};
        QCOMPARE(query("edit_changeusername", caller + HttpParams{{"user_name", "bob"}}).info(), "ER_REJECT");
        for (const char* name : {"bob", ""}) {
            const HttpParams sub =
                form(QString("user_name=%1&user_pass=p&nickname=&beizhu=&mask=").arg(name));
            QCOMPARE(query("addziuser", caller + sub).info(), *name ? "ER_REJECT" : "ParER");
        }
        QCOMPARE(world.snapshot(), before);
    }

    void findsCommandsByTheirBeginning_data() { addKinds({3, 1}); }

    void findsCommandsByTheirBeginning() {
        ApiWorld& world = this->world();
        HttpClient& http = world.service.http();
        QVERIFY(http.postForm("/user/fnkukei/getswapinfo.php", {}).res());
        for (const char* path : {"/user/fnkukei/search_sn", "/user/fnckukei/ffffmyinfo",
                                 "/user/fnkukei/nothing", "/user/fnkukei/", "/user/fnkukei"})
            QVERIFY(holds(http.postForm(path, {}), R"({"res":false,"docroot":"etc/docroot/"})"));
        ApiWorld& small = ApiWorld::of(0);
        QVERIFY(holds(small.service.http().postForm("/user/fnkukei/getswapinfo", {}),
                      R"({"docroot":"etc/docroot/"})"));
    }

    void runsTheProgram_data() {
        const Table<QByteArray, QByteArray> row{"script", "answer"};
        row("echo",
            "let s='';process.stdin.on('data',d=>s+=d).on('end',()=>console.log(JSON.stringify("
            "[process.env.__path,process.env.sqlmedbk,JSON.parse(s).word])));",
            "[\"/user/fnokukei/getswapinfo\",\"1\",\"a \\\"b\\\" 词\"]\n");
        row("fails", "console.log('{}');process.exit(3);", {});
        row("not there", {}, {});
    }

    void runsTheProgram() {
        QFETCH(QByteArray, script);
        QFETCH(QByteArray, answer);
        ServiceOptions options;
        options.kind = 1;
        options.settings["programdir"] = ".";
        if (!script.isEmpty())
            options.files["find.js"] = script;
        Service service(options);
        QVERIFY(service.start());
        const HttpReply reply =
            service.http().postForm("/user/fnokukei/getswapinfo", {{"word", "a \"b\" 词"}});
        if (answer.isEmpty())
            QCOMPARE(reply.info(), "exc_error_ext");
        else
            QCOMPARE(reply.body, answer);
    }

    void runsTwoProgramsAtOnce() {
        ServiceOptions options;
        options.kind = 1;
        options.settings["programdir"] = ".";
        options.files["find.js"] =
            "const "
            "fs=require('fs');fs.mkdirSync('run'+process.pid);setTimeout(()=>{console.log(fs.readdirSync("
            "'.').filter(n=>n.startsWith('run')).length);fs.rmdirSync('run'+process.pid)},200);";
        Service service(options);
        QVERIFY(service.start());
        std::vector<std::thread> clients;
        std::array<int, 6> running{};
        for (int& seen : running) {
            clients.emplace_back([&seen, port = service.httpPort()] {
                seen = HttpClient(port).postForm("/user/fnokukei/getswapinfo", {}).body.trimmed().toInt();
            });
        }
        for (std::thread& client : clients)
            client.join();
        for (const int seen : running)
            QVERIFY2(seen == 1 || seen == 2, qPrintable(QString::number(seen)));
    }

    void startsNoProgramForWhatIsFixed_data() {
        const Table<int, QString, HttpParams, QString> row{"kind", "command", "params", "word"};
        row("SQLite without tasks", 0, "getswapinfo", {}, "config.ini_dbk_ER");
        row("SQLite", 3, "getswapinfo", {}, "config.ini_dbk_ER");
        row("unknown command", 1, "nothing", {}, "unknown_cmd");
        row("service key", 1, "add_skdevsn", {}, "unknown_cmd");
        row("missing parameter", 1, "myinfo", {}, "ParER");
        row("wrong token", 1, "myinfo", {{"userid", "1"}, {"token", "wrong"}}, "ER_REJECT");
    }

    void startsNoProgramForWhatIsFixed() {
        QFETCH(QString, command);
        QFETCH(HttpParams, params);
        QFETCH(int, kind);
        ServiceOptions options;
        options.kind = kind;
        options.settings["programdir"] = "nowhere"; // what starts a program is answered otherwise
        Service service(options);
        QVERIFY(service.start());
        QTEST(service.http().postForm("/user/fnokukei/" + command, params).info(), "word");
    }

private:
    static ApiWorld& current() {
        QFETCH(int, kind);
        return ApiWorld::of(kind);
    }
    /// The service of the row's kind with a sub-account of Alice's and something of everything.
    static ApiWorld& world() {
        ApiWorld& world = current();
        world.reset();
        const auto sql = [&](const QString& statement) {
            world.service.sql(statement);
        };
        sql(QString("UPDATE `sbox_users` SET `user_level` = 1 WHERE `id` = %1").arg(world.alice.id));
        sql(QString(
                "INSERT INTO `sbox_users` (`user_name`, `user_pass`, `master_id`, `mask`, `token`) VALUES "
                "('sub', 'p', %1, '12,21', 'subtoken')")
                .arg(world.alice.id));
        sql(QString("INSERT INTO `sbox_device_info` (`id`, `user_id`, `device_seed`) VALUES (13, %1, 'dd')")
                .arg(sub()));
        sql(QString("INSERT INTO `warningplant` (`id`, `name`, `userid`) VALUES (51, 'fire', %1), (61, "
                    "'bobs', %2)")
                .arg(world.alice.id)
                .arg(world.bob.id));
        sql("DELETE FROM `warregister`");
        sql(QString(
                "INSERT INTO `warregister` (`sn`, `filename`, `userid`, `fb`) VALUES ('x', 'a.mp3', %1, 'B')")
                .arg(world.alice.id));
        sql("DELETE FROM `swap_info`");
        sql("INSERT INTO `swap_info` (`id`, `title`, `type`) VALUES (71, 'news', 'info')");
        sql("UPDATE `xieyi_mod` SET `xieyi` = 'terms'");
        return world;
    }
    static int sub() {
        return current().cell("SELECT `id` FROM `sbox_users` WHERE `user_name` = 'sub'").toInt();
    }
    static QString filled(QString text) {
        return text.replace("{sub}", QString::number(sub()))
            .replace("{alice}", QString::number(current().alice.id));
    }
    static HttpReply query(const QString& command, const HttpParams& params) {
        const QString set = QueryTable::embedded().find("fnkukei", command) ? "fnkukei" : "fnckukei";
        return current().service.http().postForm(QString("/user/%1/%2").arg(set, command), params);
    }
    static HttpParams paramsOf(const QueryCase& c) {
        HttpParams params{{"userid", QString::number(current().alice.id)}, {"token", current().alice.token}};
        for (const auto& param : c.params)
            params.append(qMakePair(param.first, filled(param.second)));
        return params;
    }
};

int main(int argc, char** argv) {
    return runTest<ApiQueriesTest>(argc, argv);
}
#include "api_queries_test.moc"
