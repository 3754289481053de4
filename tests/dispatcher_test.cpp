#include "device/commandserver.h"
#include "support/devicelink.h"
#include "support/table.h"
#include "support/testmain.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>

namespace {

constexpr char End[] = "|end|";

} // namespace

/// Commands as they come over TCP, against speakers A and B (online), C (known, offline), D (unknown), E and
/// F (unknown, to be used by one test) and the group "g" (A and B).
class DispatcherTest : public QObject {
    Q_OBJECT
private slots:
    void initTestCase() {
        QVERIFY(QDir::setCurrent(m_directory.path()));
        m_link = std::make_unique<DeviceLink>();
        m_a = m_link->speaker(testSerial(1));
        m_b = m_link->speaker(testSerial(2));
        m_link->registry.addSession(sn("C"), &m_link->registry);
        m_server = std::make_unique<cmdthread6>(0);
        QVERIFY(m_server->init(&m_link->registry));
        m_client = std::make_unique<RawConnection>(m_server->serverPort());
    }

    void init() {
        QFile::remove("unuse.conf");
        const QMap<QString, QStringList> groups{{"g", {sn("A"), sn("B")}}, {"half", {sn("D"), sn("A")}}};
        m_link->registry.setGroupReader([groups](const QString& name) { return groups.value(name); });
        m_a->forget();
        m_b->forget();
    }

    void commands_data() {
        QTest::addColumn<QByteArray>("request");
        QTest::addColumn<QString>("res");
        QTest::addColumn<QByteArray>("atA");
        QTest::addColumn<QByteArray>("atB");
        const auto row = [](const QByteArray& request, const char* res, const QByteArray& atA = {},
                            const QByteArray& atB = {}) {
            QTest::newRow(request) << request << res << atA << atB;
        };
        const auto both = [&](const QByteArray& request, const char* res, const QByteArray& bytes) {
            row(request, res, bytes, bytes);
        };
        const QByteArray byte7("\x07", 1);

        row("{'cmd':'VOL','sn':$A,'vol':1}", "success", "SETVOLp");
        row("{'cmd':'VOL','sn':$A,'vol':26}", "success", "SETVOL\x1f");
        row("{'cmd':'VOL','sn':$A,'vol':'25'}", "success", "SETVOL\x10");
        row("{'cmd':'VOL','sn':$C,'vol':1}", "unline");
        row("{'cmd':'VOL','sn':$D,'vol':1}", "out_of_range");
        row("{'cmd':'VOL','vol':1}", "out_of_range");
        row("{'mode':1002,'sn':$B,'vol':1}", "success", {}, "SETVOLp");
        row("{'cmd':'VOL_V','sn':$A,'vol':7}", "success", "V" + byte7);
        row("{'mode':'1003','sn':$A,'vol':7}", "success", "V" + byte7);
        row("{'cmd':'VOL_V','sn':$A}", "sn or vol error1");
        row("{'cmd':'VOL_V','sn':$A,'vol':256}", "sn or vol error1");
        row("{'cmd':'VOL_V','sn':$A,'vol':1.5}", "sn or vol error1");
        row("{'cmd':'VOL_V','sn':$C,'vol':7}", "sn or vol error1");
        row("{'cmd':'VOL_V','sn':$D,'vol':7}", "sn or vol error1");
        both("{'cmd':'VOL_S','snlist':[$A,$B],'vol':7}", "success", "V" + byte7);
        both("{'mode':1009,'snlist':[$A,$B],'vol':7,'vols':7}", "success", "V" + byte7);
        row("{'mode':1009,'snlist':[$A],'vols':7}", "success", "V" + byte7);
        row("{'cmd':'VOL_S','snlist':[],'vol':7}", "Data_error_7");
        row("{'cmd':'VOL_S','snlist':$A,'vol':7}", "Data_error_7");
        row("{'cmd':'VOL_S','group':'g','vol':7}", "Data_error_7");
        row("{'cmd':'VOL','mode':1009,'sn':$A,'snlist':[$B],'vol':1}", "success", "SETVOLp");
        row("{'cmd':'NEWIP','snlist':[$A],'ip':'192.168.1.254','port':3333}", "success",
            QByteArray::fromHex("59c0a801fe0d05"));
        row("{'cmd':'NEWIP','snlist':[$A],'ip':'192.168.1','port':3333}", "out_of_range90008");
        row("{'cmd':'NEWIP','snlist':[$A],'ip':'192.168.1.1','port':65536}", "out_of_range90008");
        row("{'cmd':'NEWIP','snlist':[$A,$D],'ip':'1.2.3.4','port':1}", "out_of_range",
            QByteArray::fromHex("59010203040001"));
        row("{'cmd':'MIC_DE','sn':$A,'mic_e':5,'mic_d':7}", "success", "M\x05" + byte7);
        row("{'mode':1007,'sn':$A,'mic_e':5,'mic_d':7}", "success", "M\x05" + byte7);
        row("{'cmd':'MIC_DE','sn':$A,'mic_e':5}", "Data_error_7");
        row("{'cmd':'DEBUG','sn':$A,'dev_ks':1}", "success", "IK");
        row("{'mode':1008,'sn':$A,'dev_ks':0}", "success", "IS");
        row("{'cmd':'DEBUG','sn':$C,'dev_ks':1}", "unline");
        row("{'cmd':'DEBUG','sn':$D,'dev_ks':1}", "out_of_range2");
        both("{'cmd':'DEBUGALL','dev_ks':1}", "unline90008", "IK");
        both("{'cmd':'FUCKALL','cmdline':'xyz'}", "success90008", "A1xyz");
        both("{'cmd':'GPIOALL','dev_ks':1}", "success90718", "G01");
        row("{'cmd':'GPIO','sn':$A,'dev_ks':0}", "success90708", "G00");
        row("{'cmd':'GPIO','sn':$C,'dev_ks':0}", "unline90708");
        row("{'cmd':'GPIO','sn':$D,'dev_ks':0}", "out_of_range90008");
        both("{'cmd':'PLAYTTS','snlist':[$A,$B],'ttstring':'上 课'}", "success", "X上 课");
        row("{'cmd':'PLAYTTS','snlist':[$D],'ttstring':'x'}", "out_of_range");
        row("{'cmd':'PLAYTTS','ttstring':'x'}", "Data_error_7");
        row("{'cmd':'TEST','snlist':[$A],'Data':'raw'}", "success", "raw");
        both("{'cmd':'PLAYOFF','snlist':[$A,$B],'filelist':['http://h/a','b.mp3']}", "WELL",
             "A1http://h/a\nb.mp3");
        both("{'cmd':'PLAYOFF','group':'g','filelist':['a']}", "WELL", "A1a");
        both("{'cmd':'PLAYOFF_G','group':'g','snlist':[$A],'filelist':['a']}", "WELL", "A1a");
        row("{'cmd':'PLAYOFF','group':'g','snlist':[$A],'filelist':['a']}", "WELL", "A1a");
        row("{'cmd':'PLAYOFF_G','snlist':[$A],'filelist':['a']}", "WELL", "A1a");
        row("{'cmd':'PLAYOFF_G','group':'half','filelist':['a']}", "out_of_range", "A1a");
        row("{'cmd':'PLAYOFF_G','group':'nobody','filelist':['a']}", "Data_error_7");
        row("{'cmd':'PLAYOFF_G','group':'nobody','snlist':[$A],'filelist':['a']}", "WELL", "A1a");
        row("{'cmd':'PLAYOFF_G','group':'','snlist':[$A],'filelist':['a']}", "Data_error_7");
        row("{'cmd':'PLAYOFF','snlist':[$D,$C,$A],'filelist':['a']}", "unline", "A1a");
        row("{'cmd':'PLAYOFF','snlist':[7,null,$A],'filelist':['a']}", "out_of_range", "A1a");
        row("{'cmd':'PLAYOFF','snlist':[$A],'filelist':[]}", "ufile_error");
        row("{'cmd':'PLAYOFF','snlist':[$A],'filelist':['a',7]}", "ufile_error");
        row("{'cmd':'PLAYOFF','snlist':[$A],'filelist':'a'}", "ufile_error");
        row("{'cmd':'GPIO_132','snlist':[$A],'filelist':['u','v']}", "WELL",
            "A1u && gpio132_on   && .mp3\nv && gpio132_on   && .mp3");
        row("{'cmd':'GPIO_133','snlist':[$A],'filelist':['u']}", "WELL", "A1u && gpio133_on   && .mp3");
        row("{'cmd':'GPIOS_132','snlist':[$A],'filelist':['u']}", "WELL", "A1u && gpio132_off   && .mp3");
        row("{'cmd':'GPIOS_133','snlist':[$A],'filelist':['u']}", "WELL", "A1u && gpio133_off   && .mp3");
        row("{'cmd':'PLAYAS','snlist':[$A],'filelist':['F_NONE.mp3']}", "WELL", "A6F_NONE.mp3");
        both("{'cmd':'PLAYAS','snlist':[$A,$B],'filelist':['http://1','a','http://2','b']}", "WELL",
             "AShttp://1AShttp://2A6a\nb");
        row("{'cmd':'PLAYAS','snlist':[$A]}", "ufile_error");
        row("{'cmd':'PLAYASCMD','snlist':[$A],'filelist':['curl x > y','z']}", "success", "AScurl x > yASz");
        row("{'cmd':'PLAYA7','snlist':[$A],'filelist':['http://1','b']}", "success",
            "A6http://1 --no-buffer\nb");
        row("{'cmd':'FORCESTOP7','snlist':[$A]}", "success", "A7");
        row("{'cmd':'PLAYOFF_START','snlist':[$A],'filelist':['u']}", "success", "A4u");
        both("{'cmd':'PLAYOFF_START_G','group':'g','filelist':['u']}", "success", "A4u");
        row("{'cmd':'PURGEFILE','snlist':[$A],'filelist':['u','v']}", "success", "A3u\nv");
        both("{'cmd':'PURGEFILE_G','group':'g','filelist':['u']}", "success", "A3u");
        row("{'cmd':'PRECACHE','snlist':[$A],'filelist':['u']}", "success", "A2u");
        both("{'cmd':'PRECACHE_G','group':'g','filelist':['u']}", "success", "A2u");
        row("{'cmd':'FORCESTOP','snlist':[$A]}", "success", "A5");
        both("{'cmd':'FORCESTOP_G','group':'g'}", "success", "A5");
        row("{'cmd':'MDIFYCENTER','snlist':[$A],'originurl':'http://c/'}", "success", "A0http://c/");
        both("{'cmd':'MDIFYCENTER_G','group':'g','originurl':'http://c/'}", "success", "A0http://c/");
        row("{'cmd':'MDIFYCENTERS','snlist':[$A],'originurl':'http://c/'}", "success", "A&http://c/");
        row("{'cmd':'MDIFYCENTER','snlist':[$A]}", "Data_error_7");
        row("{'cmd':'ListGroup','group':'g'}", "success");
        row("{'cmd':'ListGroup','group':'nobody'}", "Data_error_7");
        row("{'cmd':'ListGroup'}", "Data_error_7");
        both("{'cmd':'LIST_TASK_G','group':'g'}", "success", "AL");
        row("{'cmd':'ADD_TASK_G','snlist':[$A],'taskid':9,'tasktime':'36000','weeks':'1,2','filelist':['a','"
            "b']}",
            "success", "AT36000||9||1,2||a\nb");
        row("{'cmd':'ADD_TASK_G','snlist':[$A],'tasktime':36000,'weeks':'1','filelist':['a']}",
            "Data_error_7");
        row("{'cmd':'ADD_TASK_G','snlist':[$A],'taskid':9,'tasktime':36000,'weeks':'1'}", "ufile_error");
        row("{'cmd':'ADD_TASK_GS','snlist':[$A],'taskid':9,'tasktime':36000,'weeks':12,'filelist':['a'],"
            "'startdate':1,'enddate':2,'kind':3,'clen':4}",
            "success", "AT36000||9||12||a||1||2||3||4");
        row("{'cmd':'ADD_TASK_GS','snlist':[$A],'taskid':9,'tasktime':36000,'weeks':12,'filelist':['a'],"
            "'startdate':1,'enddate':2,'kind':3}",
            "Data_error_7");
        row("{'cmd':'DEL_TASK_G','snlist':[$A],'taskid':12}", "success", "AD12");
        row("{'cmd':'STOP_TASK_G','snlist':[$A],'taskid':'12'}", "success", "AE12");
        row("{'cmd':'TEST_TASK_G','snlist':[$A],'taskid':12}", "success", "AS12");
        row("{'cmd':'DEL_TASK_G','snlist':[$A],'taskid':'x'}", "Data_error_7");
        row("{'cmd':'REBOOT_G','snlist':[$A]}", "success", "AR");
        row("{'cmd':'CLEARTASK_G','snlist':[$A]}", "success", "A@");
        row("{'cmd':'STOPALL_TASK_G','snlist':[$A]}", "success", "AF");
        row("{'cmd':'FILE_G','snlist':[$A],'url':'u','md5':'m','Path':'p'}", "success", "A#u`m`p");
        row("{'cmd':'FILES_G','snlist':[$A],'url':'u','md5':'m','paths':'p'}", "success", "A#u`m`p");
        row("{'cmd':'FILE_G','snlist':[$A],'url':'u','md5':'m','paths':'p'}", "Data_error_7");
        row("{'cmd':'FILE_G','snlist':[$D],'url':'u','Path':'p'}", "out_of_range");

        row("{'cmd':'play off'}", "unknown_cmd");
        row("{'cmd':'vol','sn':$A,'vol':1}", "unknown_cmd");
        row("{'cmd':7}", "unknown_cmd");
        row("{'mode':1004}", "unknown_cmd");
        row("{}", "unknown_cmd");
        row("{'cmd':'VOL',}", "json_error");
        row("[1]", "json_error");
        row("", "json_error");
    }

    void commands() {
        QFETCH(QByteArray, request);
        QFETCH(QByteArray, atA);
        QFETCH(QByteArray, atB);
        const QJsonObject reply = askJson(request);
        QTEST(reply["res"].toString(), "res");
        QVERIFY(reply["info"].isString());
        QVERIFY(wire(atA, atB));
    }

    void withoutRedis() {
        m_link->registry.setGroupReader({});
        QCOMPARE(askJson("{'cmd':'PLAYOFF_G','group':'g','filelist':['a']}")["res"], "Data_error_7");
        QCOMPARE(askJson("{'cmd':'PLAYOFF_G','group':'g','snlist':[$B],'filelist':['a']}")["res"], "WELL");
        QCOMPARE(askJson("{'cmd':'ListGroup','group':'g'}")["res"], "Data_error_7");
        QVERIFY(wire({}, "A1a"));
    }

    void disabledSpeaker() {
        m_link->registry.setRestricted(sn("A"), true);
        QCOMPARE(askJson("{'cmd':'GPIO','sn':$A,'dev_ks':1}")["res"], "unline90718");
        QCOMPARE(askJson("{'cmd':'PLAYOFF','snlist':[$A,$B],'filelist':['a']}")["res"], "unline");
        m_link->registry.setRestricted(sn("A"), false);
        QVERIFY(wire({}, "A1a"));
    }

    void volumeOfEach() {
        const QJsonObject reply = askJson("{'cmd':'VOL_S','snlist':[$D,$A,$C,$B],'vol':3}");
        QCOMPARE(reply["res"], "unline");
        QStringList words;
        for (const auto entry : reply["list"].toArray())
            words << entry.toObject()["sn"].toString() + ' ' + entry.toObject()["res"].toString();
        QCOMPARE(words, (QStringList{sn("D") + " out_of_range", sn("A") + " success", sn("C") + " unline",
                                     sn("B") + " success"}));
        QVERIFY(reply["info"].toString().contains("2 of 4"));
        QVERIFY(wire("V\x03", "V\x03"));
    }

    /// A command to very many is under way, B served and A's turn far off: what comes meanwhile for A runs
    /// at once, and yet after it. The reply tells every target in its place.
    void commandsForOneSpeakerKeepTheirOrder() {
        constexpr int Others = 300'000;
        QByteArray request = "{\"cmd\":\"VOL_S\",\"vol\":5,\"snlist\":[\"" + sn("B").toLatin1() + '"';
        for (int i = 0; i < Others; ++i)
            request += ",\"b0000000000000000000" + QByteArray::number(1'000'000'000'000LL + i) + '"';
        request += ",\"" + sn("A").toLatin1() + "\"]}";
        RawConnection big(m_server->serverPort());
        big.send(request);
        QVERIFY(m_b->waitReceived("V\x05"));
        QCOMPARE(askJson("{'cmd':'VOL_V','sn':$A,'vol':7}")["res"], "success");
        const QByteArray plain = fill("{'cmd':'VOL_V','sn':$A,'vol':8}");
        QVERIFY(m_link->registry.Diamonds_jsondidocom(plain).contains("success"));
        QVERIFY(big.received().isEmpty());
        QVERIFY(waitFor([&] { return big.received().endsWith("\r\n"); }));
        const QJsonObject reply = QJsonDocument::fromJson(big.received()).object();
        QCOMPARE(reply["res"], "out_of_range");
        QVERIFY(reply["info"].toString().startsWith("sent to 2 of 300002; "));
        QCOMPARE(reply["list"].toArray().size(), Others + 2);
        QCOMPARE(reply["list"].toArray().last().toObject(),
                 (QJsonObject{{"sn", sn("A")}, {"res", "success"}}));
        QVERIFY(wire("V\x05V\x07V\x08", "V\x05"));
    }

    void list() {
        m_a->send("UA2/music/\"bell\" \\铃.mp3");
        QVERIFY(waitFor([&] { return m_link->session(testSerial(1))->playingPath().contains("bell"); }));
        askJson("{'cmd':'VOL_V','sn':$A,'vol':20}");
        askJson("{'cmd':'MIC_DE','sn':$A,'mic_e':5,'mic_d':7}");
        askJson("{'cmd':'DEBUG','sn':$A,'dev_ks':1}");
        for (const char* request : {"{'cmd':'LIST'}", "{'cmd':'GETALLINFO'}", "{'mode':1001}"}) {
            const QJsonObject reply = askJson(request);
            QCOMPARE(reply["res"], "success");
            const QJsonArray list = reply["list"].toArray();
            QVERIFY(list.size() >= 3);
            QCOMPARE(list[0].toObject(), (QJsonObject{{"sn", sn("A")},
                                                      {"status_playfile", "/music/\"bell\" \\铃.mp3"},
                                                      {"l_ip", "127.0.0.1"},
                                                      {"r_ip", "127.0.0.1"},
                                                      {"vol", 20},
                                                      {"status", 1},
                                                      {"kind", 1},
                                                      {"Mic_d", 7},
                                                      {"Mic_e", 5},
                                                      {"dsv", 1},
                                                      {"xhstatus", 1}}));
            QCOMPARE(list[2].toObject()["sn"], sn("C"));
            QCOMPARE(list[2].toObject()["status"], 0);
        }
    }

    /// Asked with a mark, the list holds what has changed since, and nothing is lost between two marks.
    void listOfChanges() {
        const auto serialsSince = [this](QString& mark) {
            const QJsonObject reply = askJson("{'cmd':'LIST','since':'" + mark.toLatin1() + "'}");
            mark = reply["mark"].toString();
            QStringList serials;
            for (const QJsonValue entry : reply["list"].toArray())
                serials << entry.toObject()["sn"].toString();
            return serials;
        };
        QString mark, other;
        const int all = m_link->registry.sessions().size();
        QCOMPARE(serialsSince(mark).size(), all);
        QCOMPARE(serialsSince(mark), QStringList());
        QCOMPARE(serialsSince(other).size(), all);
        askJson("{'cmd':'VOL_V','sn':$A,'vol':21}");
        QCOMPARE(serialsSince(mark), QStringList(sn("A")));
        askJson("{'cmd':'VOL_V','sn':$A,'vol':22}");
        askJson("{'cmd':'VOL_V','sn':$B,'vol':22}");
        QCOMPARE(serialsSince(mark), (QStringList{sn("A"), sn("B")}));
        QCOMPARE(serialsSince(other), (QStringList{sn("A"), sn("B")}));
        QCOMPARE(serialsSince(mark), QStringList());
        m_link->registry.tellAgain({sn("B"), "nobody"});
        QVERIFY(waitFor([&] { return serialsSince(mark) == QStringList(sn("B")); }));
        QString foreign = "1." + mark.section('.', 1); // of another run
        QCOMPARE(serialsSince(foreign).size(), all);
    }

    /// Texts that speakers choose must not break the reply: every character up to U+00FF, and beyond.
    void listIsWellFormedJson() {
        QString name = "\u2028\U0001F514";
        for (char16_t c = 1; c < 0x100; ++c)
            name += QChar(c);
        m_link->session(testSerial(2))->setLocalIp(name);
        const QJsonArray list = askJson("{'cmd':'LIST'}")["list"].toArray();
        QCOMPARE(list[1].toObject()["l_ip"].toString(), name);
    }

    void timeUpdate() {
        QCOMPARE(askJson("{'cmd':'UPDATETIME_G','snlist':[$A]}")["res"], "success");
        QVERIFY(waitFor([&] { return m_a->received().size() == 8; }));
        QVERIFY(m_a->received().startsWith("AM"));
    }

    void enableAndDisable() {
        QCOMPARE(askJson("{'cmd':'useing_disable','snlist':[$A,$C]}")["res"], "success");
        QVERIFY(m_link->registry.isRestricted(sn("A")) && !m_link->session(testSerial(1))->isEnabled());
        QCOMPARE(askJson("{'cmd':'useing_enable','snlist':[$A,$C]}")["res"], "success");
        QVERIFY(!m_link->registry.isRestricted(sn("A")) && m_link->session(testSerial(1))->isEnabled());
        QCOMPARE(askJson("{'cmd':'useing_disable'}")["res"], "Data_error_7");

        // A serial that nobody has seen yet starts disabled when it comes.
        QCOMPARE(askJson("{'cmd':'useing_disable','snlist':[$E]}")["res"], "out_of_range");
        RawConnection late(m_link->port, sim::registrationPacket(testSerial(5), 20));
        QVERIFY(waitFor(
            [&] { return m_link->session(testSerial(5)) && m_link->session(testSerial(5))->isBound(); }));
        QVERIFY(!m_link->session(testSerial(5))->isEnabled());
    }

    void registeredList() {
        const auto stored = [] {
            QFile file("unuse.conf");
            return file.open(QIODevice::ReadOnly) ? QJsonDocument::fromJson(file.readAll()).array()
                                                  : QJsonArray();
        };
        const QByteArray update = "'sskey':'key','url':'u','md5':'m','paths':'p'}";
        QCOMPARE(askJson("{'cmd':'ADD_FDEV','snlist':[$F]," + update)["res"], "success9000800");
        QCOMPARE(stored(), QJsonArray{sn("F")});
        QVERIFY(wire("A#u`m`p", "A#u`m`p"));
        RawConnection blocked(m_link->port, sim::registrationPacket(testSerial(6), 20));
        QVERIFY(blocked.waitClosed());

        QCOMPARE(askJson("{'cmd':'ADD_FDEV','snlist':[$C,$F],'sskey':'key'}")["res"], "success9000800");
        QCOMPARE(stored(), (QJsonArray{sn("C"), sn("F")}));
        QCOMPARE(askJson("{'cmd':'DEL_FDEV','snlist':[$F],'sskey':'key'}")["res"], "success9000800");
        QCOMPARE(stored(), (QJsonArray{sn("C")}));
        QCOMPARE(askJson("{'cmd':'EDT_FDEV','snlist':[$B],'sskey':'key'}")["res"], "success9000800");
        QCOMPARE(stored(), (QJsonArray{sn("B")}));
        QVERIFY(wire({}, {}));
        RawConnection allowed(m_link->port, sim::registrationPacket(testSerial(6), 20));
        QVERIFY(allowed.waitReceived("JXXXXX"));
    }

    void registeredListIsGuarded_data() {
        const Table<QByteArray, QString> row{"request", "res"};
        row("wrong key", "{'cmd':'ADD_FDEV','snlist':[$D],'sskey':'no'}", "Data_error_7");
        row("no key", "{'cmd':'ADD_FDEV','snlist':[$D]}", "Data_error_7");
        row("no serials", "{'cmd':'ADD_FDEV','sskey':'key'}", "Data_error_7");
        row("no serial", "{'cmd':'ADD_FDEV','snlist':['../x'],'sskey':'key'}", "out_of_range");
    }

    void registeredListIsGuarded() {
        QFETCH(QByteArray, request);
        QTEST(askJson(request)["res"].toString(), "res");
        QVERIFY(!QFile::exists("unuse.conf"));
        QVERIFY(wire({}, {}));
    }

    void addedCommand() {
        QStringList targets;
        m_link->registry.addCommand("EXTRA", [&](const QJsonObject& request, const QStringList& serials) {
            targets = serials;
            return QJsonObject{{"res", request["word"]}, {"info", ""}};
        });
        QCOMPARE(askJson("{'cmd':'EXTRA','word':'yes','group':'g'}")["res"], "yes");
        QCOMPARE(targets, (QStringList{sn("A"), sn("B")}));
        QCOMPARE(askJson("{'cmd':'EXTRA','word':'yes','snlist':[$D]}")["res"], "yes");
        QCOMPARE(targets, QStringList{sn("D")});
        QCOMPARE(askJson("{'cmd':'EXTRA','word':'yes'}")["res"], "Data_error_7");
    }

    /// No command is so long that it could cost a speaker its connection.
    void longArguments() {
        const QByteArray longText(70'000, 'x');
        QCOMPARE(askJson("{'cmd':'PLAYOFF','snlist':[$A],'filelist':['" + longText + "']}")["res"],
                 "write_erro");
        QCOMPARE(askJson("{'cmd':'PLAYTTS','snlist':[$A],'ttstring':'" + longText + "'}")["res"],
                 "Data_error_7");
        QVERIFY(wire({}, {}));
    }

private:
    QString sn(const char* name) const { return testSerial(*name - 'A' + 1).toHex(); }

    QByteArray fill(QByteArray text) const {
        text.replace('\'', '"');
        for (const char* name : {"A", "B", "C", "D", "E", "F"})
            text.replace(QByteArray("$") + name, '"' + sn(name).toLatin1() + '"');
        return text;
    }

    QJsonObject ask(const QByteArray& request) {
        m_client->forget();
        m_client->send(QByteArray::number(request.size()) + '\n' + request);
        if (!waitFor([&] { return m_client->received().endsWith("\r\n"); }))
            return {};
        return QJsonDocument::fromJson(m_client->received()).object();
    }

    QJsonObject askJson(const QByteArray& singleQuoted) { return ask(fill(singleQuoted)); }
    /// Waits until both speakers have read everything up to now; then compares.
    bool wire(const QByteArray& atA, const QByteArray& atB) {
        askJson("{'cmd':'TEST','snlist':[$A,$B],'Data':'|end|'}");
        waitFor([&] { return m_a->received().endsWith(End) && m_b->received().endsWith(End); });
        const bool isEqual = m_a->received() == atA + End && m_b->received() == atB + End;
        if (!isEqual)
            qWarning() << "A:" << m_a->received() << "B:" << m_b->received();
        m_a->forget();
        m_b->forget();
        return isEqual;
    }

    QTemporaryDir m_directory;
    std::unique_ptr<DeviceLink> m_link;
    std::unique_ptr<cmdthread6> m_server;
    std::unique_ptr<RawConnection> m_client, m_a, m_b;
};

int main(int argc, char** argv) {
    return runTest<DispatcherTest>(argc, argv);
}
#include "dispatcher_test.moc"
