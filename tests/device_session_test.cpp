#include "device/fortcpclient.h"
#include "support/devicelink.h"
#include "support/table.h"
#include "support/testmain.h"

#include <functional>
#include <QJsonDocument>
#include <stdexcept>

using namespace std::chrono_literals;
using CommandCall = std::function<int(SAobj&)>;
Q_DECLARE_METATYPE(CommandCall)

class SessionTest : public QObject {
    Q_OBJECT
private slots:
    void init() {
        m_link = std::make_unique<DeviceLink>();
        m_speaker = m_link->speaker(testSerial());
        QVERIFY(session() && session()->isBound());
    }

    void cleanup() {
        m_speaker.reset();
        m_link.reset();
    }

    /// What no command of the dispatcher sends, and the edges of what they send.
    void commandBytes_data() {
        const Table<QByteArray, CommandCall> row{"bytes", "call"};
        row("alarm on", "GET_BAOJINGEE", [](SAobj& s) { return s.get_baojing(1, 1); });
        row("alarm", "GET_BAOJING", [](SAobj& s) { return s.get_baojing(2, 0); });
        row("alarm over on", "GET_BAOJINGGE", [](SAobj& s) { return s.get_baojing_over(1, 0); });
        row("alarm over", "GET_BAOJING", [](SAobj& s) { return s.get_baojing_over(0, 1); });
        row("vol is the low byte", "SETVOL\x2c", [](SAobj& s) { return s.set_vol(300); });
        row("vol V 0", QByteArray("V\0", 2), [](SAobj& s) { return s.set_vol_V(0); });
        row("info", "JXXXXX", [](SAobj& s) { return s.get_devinfo(); });
        row("stream", "AShttp://x", [](SAobj& s) { return s.addStreamlist("http://x"); });
        row("stream back", "ASx", [](SAobj& s) { return s.addStreamlistback("x"); });
        row("test", "anything", [](SAobj& s) { return s.QT_test("anything"); });
    }

    void commandBytes() {
        QFETCH(CommandCall, call);
        QFETCH(QByteArray, bytes);
        QCOMPARE(call(*session()), bytes.size());
        QVERIFY2(m_speaker->waitReceived(bytes), m_speaker->received().toHex(' '));
    }

    void commandsMirrorWhatTheySet() {
        session()->set_vol_V(7);
        session()->set_Mic_V(3, 4);
        session()->cdn_url("http://c/");
        session()->exec_Mp3_url("a");
        session()->NewMp3list_start("a");
        session()->QT_test("hello");
        session()->set_debug_ks(1);
        const QMap<QString, QString> expected{{"Line", "Online"},       {"vol", "7"},
                                              {"mic_e", "3"},           {"mic_d", "4"},
                                              {"cdn_url", "http://c/"}, {"Preload", "Added_list"},
                                              {"Purge", "Added_list"},  {"test", "hello"}};
        QCOMPARE(fields(), expected);
        QCOMPARE(session()->vol(), 7);
        QCOMPARE(session()->debugState(), 1);
        QCOMPARE(session()->addStreamlist("rtsp://x"), -1);
    }

    void noCommandWithoutConnectionOrWhenDisabled() {
        session()->setEnabled(false);
        QCOMPARE(session()->set_vol_V(9), SAobj::NotBound);
        QVERIFY(!fields().contains("vol"));
        session()->setEnabled(true);
        m_speaker->close();
        QVERIFY(waitFor([&] { return !session()->isOnline(); }));
        QCOMPARE(session()->stopcurl(), -99);
    }

    void commandsComeReadByRead() {
        m_link->registry.setCommandGap(60ms);
        session()->addMp3list("a");
        session()->stopcurl();
        session()->set_vol_V(3);
        QVERIFY(waitFor([&] { return m_speaker->reads().size() >= 3; }));
        QCOMPARE(m_speaker->reads(), (QByteArrayList{"A1a", "A5", "V\x03"}));

        // A stop does not wait for a play that it would end at once, when it may go first.
        m_link->registry.setStopsFirst(true);
        session()->set_vol_V(4);
        session()->set_vol_V(5);
        session()->addMp3list("b");
        session()->Test_unlineTasklist(7);
        session()->stopcurl2();
        QVERIFY(waitFor([&] { return m_speaker->reads().size() >= 7; }));
        const QByteArrayList later = m_speaker->reads().mid(3);
        QCOMPARE(later.size(), 4); // the list is none of them
        QVERIFY(later.indexOf("A7") < later.indexOf("V\x05") && later.last() == "AS7");

        // As many as may wait, and not one for the connection that comes after.
        m_link->registry.setCommandGap(1h);
        for (int i = 0; i < fortcpclient::MaxWaiting; ++i)
            QCOMPARE(session()->stopcurl(), 2);
        QCOMPARE(session()->stopcurl(), -1);
        const auto first = std::exchange(m_speaker, m_link->speaker(testSerial()));
        m_link->registry.setCommandGap(0ms);
        session()->stopcurl2();
        QVERIFY(m_speaker->waitReceived("A7"));
        QCOMPARE(first->reads().size(), 7);
    }

    void timeCommand() {
        const QDateTime before = QDateTime::currentDateTime();
        m_speaker->send("UD1");
        QVERIFY(waitFor([&] { return m_speaker->received().size() == 8; }));
        const QByteArray got = m_speaker->received();
        QVERIFY(got.startsWith("AM"));
        const QDateTime told(QDate(1970 + got.at(2), got.at(3), got.at(4)),
                             QTime(got.at(5), got.at(6), got.at(7)));
        QVERIFY(qAbs(before.secsTo(told)) <= 2);
    }

    void connectCommandFallsBackToTheAddressReached() {
        DeviceLink link("no address");
        const auto speaker = link.speaker(testSerial());
        link.session(testSerial())->domp3connect();
        QVERIFY(waitFor([&] { return speaker->received().size() == 7; }));
        const QByteArray argument = speaker->received().mid(1);
        QCOMPARE(sim::addressOf(argument), QHostAddress(QHostAddress::LocalHost));
        QCOMPARE(sim::portOf(argument), link.dataPort());
    }

    void reports_data() {
        // value: "<time>" for a time text
        const Table<QByteArray, QString, QString, bool> row{"report", "field", "value", "busy"};
        row("UA1", "UA1", "Playing_local_path", "Nothing", false);
        row("UA2", "UA2/mnt/校歌 1.mp3", "Playing_local_path", "/mnt/校歌 1.mp3", true);
        row("UA3", "UA3", "Playing_local_status", "Local_PLAYING", true);
        row("UA4", "UA4", "Playing_local_status", "Local_WAITING", false);
        row("UA5", "UA5", "Playing_local_status", "Local_PLUSE", false);
        row("UB1", "UB1", "Preload", "DONE", true);
        row("UC1", "UC1", "Purge", "DONE", true);
        row("UT1", "UT1a||b", "Task_list", "a||b", true);
        row("UT2", "UT2", "Update_Time", "<time>", true);
        row("UV", "UV012\n", "Version", "12", true);
        row("U alone", "U", "Update_Time", "<time>", true);
        row("U other", "UZ9", "Update_Time", "<time>", true);
        row("Y", "Y1", "Warming", "<time>", true);
    }

    void reports() {
        QFETCH(QByteArray, report);
        QFETCH(QString, field);
        QFETCH(QString, value);
        QFETCH(bool, busy);
        m_speaker->send("UA3!"); // a beat by its length: changes nothing
        session()->sn_onlinebackdata("UA3");
        fields().clear();
        m_speaker->send(report);
        QVERIFY(waitFor([&] { return !fields().isEmpty(); }));
        QCOMPARE(fields().keys(), QStringList{field});
        if (value == "<time>")
            QVERIFY(QDateTime::fromString(fields().value(field), "yyyy-MM-dd:hh:mm:ss").isValid());
        else
            QCOMPARE(fields().value(field), value);
        QCOMPARE(session()->isBusy(), busy);
    }

    void strayReportsChangeNothing_data() {
        const Table<QByteArray> row{"bytes"};
        row("UV without a number", "UVxx");
        row("beat", "Y123");
        row("K", "K12");
        row("K of another length", "K12345");
        row("form too short", QByteArray("DEIFS") + QByteArray(40, 'x'));
        row("info cut off", "J{\"vol\":");
        row("info no object", "J[1]");
        row("nothing known", QByteArray::fromHex("ff00fe01") + "zzz");
        row("lower case", "ua1 x");
    }

    void strayReportsChangeNothing() {
        QFETCH(QByteArray, bytes);
        fields().clear();
        m_speaker->send(bytes);
        QVERIFY(holdsFor([&] { return fields().isEmpty(); }, 60ms));
        QCOMPARE(session()->vol(), 20);
        // The connection still works.
        session()->stopcurl();
        QVERIFY(m_speaker->waitReceived("A5"));
    }

    void alarmReports() {
        QStringList inputs;
        connect(session(), &SAobj::sn_get_kg_back, this, [&](const QString&, char first, char second) {
            inputs.append(QString("%1%2").arg(first).arg(second));
        });
        session()->sn_onlinebackdata("Y12");
        DeviceLink::turn();
        QCOMPARE(m_link->mirror.up, QStringList{sn()});
        QCOMPARE(m_link->mirror.down, QStringList{});
        session()->sn_onlinebackdata("Y0a");
        session()->sn_onlinebackdata("Y");
        DeviceLink::turn();
        QCOMPARE(m_link->mirror.up.size(), 1);
        QCOMPARE(m_link->mirror.down.size(), 2);
        QCOMPARE(inputs.size(), 3);
        QCOMPARE(inputs.at(0), QString("12"));
    }

    void deviceInformation() {
        const QJsonObject info{{"kind", 3},  {"vol", "11"},           {"Mic_d", 4},     {"Mic_e", 5},
                               {"debug", 2}, {"l_ip", "10.9.8.7\nx"}, {"Date", "2026"}, {"voltage", 12}};
        m_speaker->send("J" + QJsonDocument(info).toJson(QJsonDocument::Compact));
        QVERIFY(waitFor([&] { return session()->vol() == 11; }));
        DeviceLink::turn();
        QCOMPARE(session()->kind(), 3);
        QCOMPARE(session()->micD(), 4);
        QCOMPARE(session()->micE(), 5);
        QCOMPARE(session()->debugState(), 2);
        QCOMPARE(session()->localIp(), QString("10.9.8.7"));
        QCOMPARE(m_link->mirror.registered.value(sn()),
                 QStringList({"3", "11", "4", "5", "10.9.8.7", "127.0.0.1"}));
        QVERIFY(!session()->isClockUnset());
        QVERIFY(m_speaker->received().isEmpty());

        m_speaker->send("?{\"vol\":12}"); // whatever stands in front
        QVERIFY(waitFor([&] { return session()->vol() == 12; }));

        QCOMPARE(session()->dido("Jnothing").value("res").toBool(true), false);
        QCOMPARE(session()->dido("").value("res").toBool(true), false);
        const QJsonObject result = session()->dido("J{\"Date\":\"1970-01-01\\n\",\"vol\":9}");
        QCOMPARE(result.value("res").toBool(), true);
        QCOMPARE(result.value("vol").toInt(), 9);
        QVERIFY(session()->isClockUnset());
        QVERIFY(waitFor([&] { return m_speaker->received().startsWith("AM"); }));
    }

    void deviceForm() {
        QByteArray form(packets::StatusFormLength, '\0');
        form.replace(0, 1, "Y"); // as an address 89.x: not to be taken for an alarm
        form[19] = 5;            // xuhao
        form[20] = 1;            // leixing
        form.replace(33, 4, QByteArray::fromHex("0a000001"));
        form.replace(37, 2, QByteArray::fromHex("0d05"));
        form[39] = 16; // level 25
        form[40] = 1;
        for (const QByteArray& report : {form + "DEIFS", "DEIFS" + form, "DEIF:" + form, "DEIF" + form}) {
            fields().clear();
            m_speaker->send(report);
            QVERIFY(waitFor([&] { return fields().contains("sn"); }));
            const QMap<QString, QString> expected{{"status", "1"},  {"vol", "25"},  {"severip", "10.0.0.1"},
                                                  {"leixing", "1"}, {"xuhao", "5"}, {"severport", "3333"},
                                                  {"sn", sn()}};
            QCOMPARE(fields(), expected);
        }
        QCOMPARE(session()->vol(), 25);
        QCOMPARE(session()->xuhao(), 5);
        QVERIFY(m_link->mirror.down.isEmpty());
    }

    void reportsWithoutMirror() {
        m_link->mirror.connected = false;
        const int before = m_link->mirror.writes;
        for (const char* const report : {"UA3", "UV12", "Y1", "UT1x", "J{\"vol\":3}"})
            session()->sn_onlinebackdata(report);
        m_link->registry.reflushredis();
        QCOMPARE(m_link->mirror.writes, before);
        QVERIFY(m_link->mirror.up.isEmpty());
        QVERIFY(session()->isBusy());
        QCOMPARE(session()->vol(), 3);
    }

    void onlineAndOffline() {
        const auto status = [&] {
            m_link->registry.reflushredis();
            return fields().value("STATUS");
        };
        QCOMPARE(session()->onlineState(), int(SAobj::Online));
        QCOMPARE(session()->statusText(), QString("在线"));
        QCOMPARE(session()->name(), QString("No Name"));
        QCOMPARE(session()->remoteIp(), QString("127.0.0.1"));
        QCOMPARE(session()->vol(), 20);
        QCOMPARE(session()->xuhao(), 1);
        QCOMPARE(fields().value("Line"), QString("Online"));
        QVERIFY(m_link->registry.isOnline(sn()));
        QCOMPARE(m_link->registry.onlineDevices().size(), 1);
        QCOMPARE(status(), QString("ONLINE"));
        session()->sn_onlinebackdata("UA4");
        QCOMPARE(status(), QString("ONLINE"));
        session()->sn_onlinebackdata("UA3");
        QCOMPARE(status(), QString("PLAYING1"));
        m_speaker->close();
        QVERIFY(waitFor([&] { return !session()->isOnline(); }));
        QCOMPARE(status(), QString("OFFLINE"));
        QCOMPARE(session()->statusText(), QString("掉线"));
        QCOMPARE(fields().value("Line"), QString("Offline"));
        QVERIFY(!session()->isBusy());
        QVERIFY(m_link->registry.onlineDevices().isEmpty());
        QVERIFY(m_link->registry.session(sn()));

        m_speaker = m_link->speaker(testSerial());
        QVERIFY(session()->isOnline());
        QCOMPARE(m_link->registry.sessions().size(), 1);
    }

    void changesAreToldInBatches() {
        SpeakerEvents& events = m_link->registry.events();
        using E = SpeakerEvents;
        std::vector<E::Change> told;
        std::vector<E::Alarm> alarms;
        auto other = std::make_unique<QObject>();
        int others = 0;
        QTest::ignoreMessage(QtWarningMsg, "speaker events: a listener failed: why not");
        events.listen(other.get(), E::Volume, [&](const E::Batch&) {
            ++others;
            throw std::runtime_error("why not");
        });
        events.listen(this, E::Kinds((E::Reported * 2 - 1) & ~E::CommandAccepted),
                      [&](const E::Batch& batch) {
                          told.insert(told.end(), batch.speakers.begin(), batch.speakers.end());
                          alarms.insert(alarms.end(), batch.alarms.begin(), batch.alarms.end());
                      });
        session()->set_vol_V(7);
        session()->set_vol_V(8);
        session()->sn_onlinebackdata("UA3");
        session()->sn_onlinebackdata("Y1a");
        session()->sn_onlinebackdata("Y0");
        session()->sn_onlinebackdata("J{\"vol\":8}"); // nothing new
        m_link->registry.addSession("ended", other.get())->setVol(3);
        m_link->registry.removeSessionsOf(other.get());
        QVERIFY(told.empty()); // not before the loop's turn
        QVERIFY(waitFor([&] { return !told.empty(); }));
        QVERIFY(told.size() == 1 && told[0].session == session());
        QCOMPARE(told[0].kinds, E::Kinds(E::Volume | E::Playing | E::AlarmInput | E::Reported));
        QVERIFY(alarms.size() == 2 && alarms[0].first == '1' && alarms[0].second == 'a');
        QVERIFY(alarms[1].sn == sn() && alarms[1].first == '0' && alarms[1].second == 0);
        other.reset();
        session()->setVol(9);
        m_speaker->close();
        QVERIFY(waitFor([&] { return told.back().kinds & E::Offline; }));
        QCOMPARE(others, 1);
    }

    void refreshCoversEverySession() {
        QStringList stored;
        for (int i = 0; i < 2500; ++i)
            stored.append(QString("b%1").arg(i, 31, 10, QLatin1Char('0')));
        m_link->registry.setStoredSerials(stored, {stored.at(7)});
        m_link->registry.init_vison();
        QCOMPARE(m_link->registry.sessions().size(), 2501);
        QCOMPARE(m_link->mirror.fields.value(stored.at(0)).value("Line"), QString("Offline"));
        QVERIFY(!m_link->registry.session(stored.at(7))->isEnabled());
        QVERIFY(m_link->registry.session(stored.at(8))->isEnabled());
        const Severinit::Changes first = m_link->registry.changesSince({});
        m_link->registry.session(stored.at(0))->setVol(9); // told already: for the next time
        const Severinit::Changes rest = m_link->registry.changesSince(first.mark);
        QVERIFY(first.isMore && !rest.isMore);
        QCOMPARE(first.sessions.size(), Severinit::MaxChanges);
        QCOMPARE(rest.sessions.size(), 2501 - Severinit::MaxChanges);
        QCOMPARE(m_link->registry.changesSince(rest.mark).sessions.size(), size_t{1});
        m_link->mirror.writes = 0;
        m_link->registry.reflushredis();
        m_link->registry.reflushredis(); // while the first goes on: nothing is written twice
        QVERIFY(waitFor([&] { return m_link->mirror.writes >= 2501; }));
        QVERIFY(holdsFor([&] { return m_link->mirror.writes == 2501; }, 30ms));
        QCOMPARE(m_link->mirror.fields.value(stored.last()).value("STATUS"), QString("OFFLINE"));
    }

private:
    SAobj* session() const { return m_link->session(testSerial()); }
    QString sn() const { return testSerial().toHex(); }
    QMap<QString, QString>& fields() {
        DeviceLink::turn();
        return m_link->mirror.fields[sn()];
    }

    std::unique_ptr<DeviceLink> m_link;
    std::unique_ptr<RawConnection> m_speaker;
};

int main(int argc, char** argv) {
    return runTest<SessionTest>(argc, argv);
}
#include "device_session_test.moc"
