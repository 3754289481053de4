#include "device/saobj.h"
#include "orders/ledger.h"
#include "orders/orders.h"
#include "support/devicelink.h"
#include "support/testmain.h"

#include <QJsonArray>
#include <QJsonDocument>

using namespace std::chrono_literals;

namespace {

/// What the journal would be told, as "ID state" with the broadcast behind it that did it, by serial.
class Told : public Ledger {
public:
    std::optional<Broadcast> broadcast(quint64 id) const override {
        return known.contains(id) ? std::optional(known[id]) : std::nullopt;
    }
    quint64 begin(const Broadcast& broadcast) override {
        known[++last] = broadcast;
        return last;
    }
    void join(quint64, const Broadcast&) override {}
    void mark(quint64 id, const QStringList& serials, ReceiptState state, const QString&,
              quint64 by) override {
        const QString text = QString::number(id) + ' ' + QString::number(int(state)) +
                             (by ? '/' + QString::number(by) : QString());
        for (const QString& sn : serials) {
            if (std::exchange(lastMarks[sn][id], text) != text)
                marks[sn] << text;
        }
    }
    void end(quint64 id, BroadcastState how, const QString&) override { ended[id] = how; }

    QMap<quint64, Broadcast> known;
    QMap<QString, QStringList> marks; ///< changes
    QMap<QString, QMap<quint64, QString>> lastMarks;
    QMap<quint64, BroadcastState> ended;
    quint64 last = 100;
};

Broadcast broadcastOf(Broadcast::Kind kind, bool endsByItself) {
    Broadcast broadcast;
    broadcast.kind = kind;
    broadcast.endsByItself = endsByItself;
    return broadcast;
}

struct Fleet {
    explicit Fleet(int count)
        : orders(&link.registry, told, nullptr, [this](const QByteArray& command) {
            ++commands;
            link.registry.runCommand(command, [](const QByteArray&) {});
        }) {
        orders.setFilePrefix("http://own/");
        for (int i = 0; i < count; ++i)
            speakers.push_back(link.speaker(testSerial(i)));
    }
    QString sn(int index) const { return testSerial(index).toHex(); }
    QJsonArray serials(const QList<int>& indexes) const {
        QJsonArray list;
        for (const int index : indexes)
            list.append(sn(index));
        return list;
    }
    QByteArray run(QJsonObject request, const QList<int>& indexes) {
        request["snlist"] = serials(indexes);
        return link.registry.Diamonds_jsondidocom(QJsonDocument(request).toJson());
    }
    /// "http://own/ID-0", "http://own/ID-1" ...
    QByteArray announce(quint64 id, const QList<int>& indexes, int priority, const char* resume = "none",
                        int volume = 0, const QList<int>& lengths = {60'000},
                        const char* whenBusy = "interrupt", int queue = 60) {
        told.known[id] = broadcastOf(Broadcast::Kind::Announcement, false);
        QJsonArray titles;
        for (const int length : lengths)
            titles.append(QJsonObject{{"url", QString("http://own/%1-%2").arg(id).arg(titles.size())},
                                      {"ms", length},
                                      {"seekable", true}});
        return run({{"cmd", "ORDER"},
                    {"broadcast", double(id)},
                    {"titles", titles},
                    {"rounds", 1},
                    {"priority", priority},
                    {"volume", volume},
                    {"whenBusy", whenBusy},
                    {"resume", resume},
                    {"queue", queue}},
                   indexes);
    }
    QByteArray play(const char* url, const QList<int>& indexes, quint64 order) {
        return run({{"cmd", "PLAYOFF"}, {"filelist", QJsonArray{url}}, {"order", double(order)}}, indexes);
    }
    /// Whether the speaker gets these commands, one after the other, and nothing else.
    bool gets(int index, const QByteArrayList& wanted) {
        RawConnection& speaker = *speakers[size_t(index)];
        const QByteArray all = wanted.join();
        const bool isRight =
            waitFor([&] { return speaker.received().size() >= all.size(); }, 5s) && speaker.received() == all;
        if (!isRight)
            qWarning() << "speaker" << index << "got" << speaker.received();
        speaker.forget();
        return isRight;
    }
    void says(int index, const QByteArray& report) { speakers[size_t(index)]->send(report); }
    bool holds(int index, quint64 id) {
        return waitFor([&] { return orders.holder(sn(index)) == id; }, 5s);
    }

    DeviceLink link;
    Told told;
    int commands = 0;
    Orders orders;
    std::vector<std::unique_ptr<RawConnection>> speakers;
};

} // namespace

class OrdersTest : public QObject {
    Q_OBJECT
private slots:
    /// Three orders over overlapping sets of speakers, each with a higher priority and a volume of its own.
    void sharedSpeakersAloneSwitch() {
        Fleet fleet(4);
        fleet.announce(1, {0, 1, 2}, 20, "position", 8);
        QCOMPARE(fleet.commands, 2); // one volume, one title, for all of them
        for (int i = 0; i < 3; ++i)
            QVERIFY(fleet.gets(i, {"V\x08", "A1http://own/1-0"}));
        fleet.says(1, "UA3");
        QVERIFY(waitFor([&] { return fleet.link.session(testSerial(1))->isBusy(); }));
        const QDeadlineTimer some(300ms);
        waitFor([&] { return some.hasExpired(); });
        fleet.announce(2, {1, 2, 3}, 100, "none", 12, {400});
        QVERIFY(fleet.gets(1, {"V\x0c", "A1http://own/2-0"}));
        QVERIFY(fleet.gets(2, {"V\x0c", "A1http://own/2-0"}));
        QVERIFY(fleet.gets(3, {"V\x0c", "A1http://own/2-0"}));
        fleet.announce(3, {2}, 255, "none", 25);
        QVERIFY(fleet.gets(2, {"V\x19", "A1http://own/3-0"}));

        // The page is over by its length, the alarm by a stop: each speaker goes back to what it had.
        QVERIFY(fleet.holds(1, 1));
        QVERIFY(fleet.gets(3, {"V\x14"}));
        QTRY_VERIFY(fleet.speakers[1]->received().size() > 16);
        QVERIFY(fleet.speakers[1]->received().startsWith("V\x08"
                                                         "A1http://own/1-0?from=0."));
        QVERIFY(fleet.orders.stop(3));
        QTRY_VERIFY(fleet.speakers[2]->received().size() > 16);
        QVERIFY2(fleet.speakers[2]->received().startsWith("V\x08"
                                                          "A1http://own/1-0?from="),
                 fleet.speakers[2]->received());
        QVERIFY(fleet.gets(0, {}));
        QCOMPARE(fleet.told.marks[fleet.sn(2)], (QStringList{"1 0/2", "2 6/3", "3 5"}));
        QCOMPARE(fleet.told.ended.value(2), BroadcastState::Done);
        QCOMPARE(fleet.told.ended.value(3), BroadcastState::Stopped);
        QVERIFY(fleet.orders.stop(1) && !fleet.orders.stop(1));
        QTRY_COMPARE(fleet.orders.running(), 0);
    }

    /// The next title comes when the speaker says that nothing plays, or when its time is over; what was lost
    /// on the way goes on when the speaker is back.
    void titles() {
        Fleet fleet(3);
        fleet.announce(1, {0, 1, 2}, 100, "position", 0, {500, 60'000});
        for (int i = 0; i < 3; ++i)
            QVERIFY(fleet.gets(i, {"A1http://own/1-0"}));
        fleet.says(0, "UA3");
        QVERIFY(waitFor([&] { return fleet.link.session(testSerial(0))->isBusy(); }));
        fleet.says(0, "UA1");
        QVERIFY(fleet.gets(0, {"A1http://own/1-1"}));
        QVERIFY(fleet.gets(1, {"A1http://own/1-1"}));
        QVERIFY(fleet.gets(2, {"A1http://own/1-1"}));
        fleet.says(1, "UA3");
        QVERIFY(waitFor([&] { return fleet.link.session(testSerial(1))->isBusy(); }));
        fleet.speakers[1]->close();
        QVERIFY(fleet.holds(1, 0));
        fleet.speakers[1] =
            std::make_unique<RawConnection>(fleet.link.port, sim::registrationPacket(testSerial(1), 20));
        QTRY_VERIFY(fleet.speakers[1]->received().contains("A1http://own/1-1"));
        fleet.says(2, "UA3");
        QVERIFY(waitFor([&] { return fleet.link.session(testSerial(2))->isBusy(); }));
        fleet.says(2, "UA1");
        QVERIFY(fleet.holds(2, 0));
        QVERIFY(fleet.gets(2, {}));
    }

    void queue() {
        Fleet fleet(2);
        fleet.announce(1, {0}, 100);
        fleet.announce(2, {0, 1}, 100, "none", 0, {60'000}, "queue");
        fleet.announce(3, {0}, 100, "none", 0, {60'000}, "queue", 0);
        fleet.announce(4, {0}, 100, "none", 0, {60'000}, "skip");
        QVERIFY(fleet.gets(0, {"A1http://own/1-0"}));
        QVERIFY(fleet.gets(1, {"A1http://own/2-0"}));
        QTRY_COMPARE(fleet.told.marks[fleet.sn(0)], (QStringList{"2 0/1", "3 0/1", "3 9/1", "4 9/1"}));
        QVERIFY(fleet.orders.stop(1));
        QVERIFY(fleet.gets(0, {"A1http://own/2-0"}));
        // Who is away or may not be used is told.
        fleet.link.registry.setRestricted(fleet.sn(0), true);
        fleet.speakers[1]->close();
        QVERIFY(waitFor([&] { return !fleet.link.session(testSerial(1))->isOnline(); }));
        fleet.announce(5, {0, 1}, 200);
        QTRY_COMPARE(fleet.told.marks[fleet.sn(0)].last(), QString("5 9"));
        QCOMPARE(fleet.told.marks[fleet.sn(1)].last(), QString("5 1"));
        QTRY_COMPARE(fleet.told.ended.value(5), BroadcastState::Done);
    }

    /// Plays of the older paths and of players: the last command holds, but for what is held from 224 on; a
    /// stop ends nothing but its own, and a next title takes nothing back.
    void otherWays() {
        Fleet fleet(1);
        const quint64 bell = fleet.told.begin(broadcastOf(Broadcast::Kind::Bell, false));
        const quint64 direct = fleet.told.begin(broadcastOf(Broadcast::Kind::Direct, true));
        fleet.play("http://own/bell", {0}, bell);
        fleet.play("http://x/direct", {0}, direct);
        QVERIFY(fleet.gets(0, {"A1http://own/bell", "A1http://x/direct"}));
        fleet.play("http://own/bell2", {0}, bell);
        QVERIFY(fleet.run({{"cmd", "FORCESTOP"}, {"order", double(bell + 50)}}, {0}).contains("unline"));
        fleet.says(0, "UA3");
        QVERIFY(waitFor([&] { return fleet.link.session(testSerial(0))->isBusy(); }));
        fleet.says(0, "UA1"); // the bell goes on where it would be by now
        QTRY_VERIFY2(fleet.speakers[0]->received().startsWith("A1http://own/bell2"),
                     fleet.speakers[0]->received());
        fleet.speakers[0]->forget();
        fleet.run({{"cmd", "FORCESTOP"}, {"order", double(bell)}}, {0});
        QVERIFY(fleet.gets(0, {"A5"}));

        fleet.announce(1, {0}, 223);
        const quint64 second = fleet.told.begin(broadcastOf(Broadcast::Kind::Direct, true));
        fleet.play("http://x/second", {0}, second);
        QVERIFY(fleet.gets(0, {"A1http://own/1-0", "A1http://x/second"}));
        fleet.announce(2, {0}, 224);
        const quint64 third = fleet.told.begin(broadcastOf(Broadcast::Kind::Direct, true));
        fleet.play("http://x/third", {0}, third);
        fleet.run({{"cmd", "FORCESTOP"}}, {0});
        fleet.run({{"cmd", "VOL_S"}, {"vol", 9}}, {0});
        QVERIFY(fleet.gets(0, {"A1http://own/2-0", "V\x09"}));
        QVERIFY(fleet.holds(0, 2));
    }

    /// What is fed over the data path takes the speaker from what it fetches, and the other way round.
    void streams() {
        Fleet fleet(2);
        QStringList heard;
        const auto hears = [&](const QString& sn, bool does) {
            heard << (sn == fleet.sn(0) ? "0" : "1") + QString(does ? "+" : "-");
        };
        fleet.announce(1, {0}, 20, "start");
        fleet.orders.beginStream(7, {150, 0}, {fleet.sn(0), fleet.sn(1)}, hears);
        QCOMPARE(heard, (QStringList{"0+", "1+"}));
        QVERIFY(fleet.gets(0, {"A1http://own/1-0", "A5"}));
        fleet.announce(2, {1}, 200);
        QCOMPARE(heard.last(), QString("1-"));
        QVERIFY(fleet.gets(1, {"A1http://own/2-0"}));
        QVERIFY(fleet.orders.stop(2));
        QTRY_COMPARE(heard.last(), QString("1+"));
        QVERIFY(fleet.gets(1, {"A5"}));
        fleet.orders.endStream(7);
        QVERIFY(fleet.gets(0, {"A1http://own/1-0"}));
        QTRY_COMPARE(fleet.told.ended.value(7), BroadcastState::Done);
    }

    /// A bell that another node has begun has its schedule's priority and volume here; taken off one speaker,
    /// it goes on at the other.
    void ofAnotherNode() {
        Fleet fleet(2);
        constexpr double bell = 7'000'000;
        const auto title = [&](const char* url) {
            fleet.run({{"cmd", "PLAYOFF"},
                       {"filelist", QJsonArray{url}},
                       {"order", bell},
                       {"terms", PlayTerms{PlayTerms::Kind::Bell, 120, 7, 60}.write()}},
                      {0, 1});
        };
        title("http://x/1");
        QVERIFY(fleet.gets(0, {"V\x07", "A1http://x/1"}));
        QVERIFY(fleet.gets(1, {"V\x07", "A1http://x/1"}));
        fleet.announce(1, {0}, 119);
        QCOMPARE(fleet.told.marks[fleet.sn(0)].last(), QString("1 9/7000000"));
        fleet.run({{"cmd", "ENDORDER"}, {"broadcast", bell}}, {0});
        QVERIFY(waitFor([&] { return fleet.speakers[0]->received().startsWith("A5"); }));
        QCOMPARE(fleet.orders.holder(fleet.sn(0)), quint64(0));
        title("http://x/2");
        QVERIFY(fleet.gets(1, {"A1http://x/2"}));
        QVERIFY(!fleet.speakers[0]->received().contains("x/2"));
    }

    /// A service that was killed in the middle of a loud page puts the volumes back when the speakers come.
    void volumesOfAnEarlierRun() {
        Fleet fleet(1);
        fleet.orders.restore({{fleet.sn(0), 7}, {fleet.sn(1), 9}});
        QVERIFY(fleet.gets(0, {"V\x07"}));
        fleet.speakers.push_back(fleet.link.speaker(testSerial(1)));
        QTRY_COMPARE(fleet.link.session(testSerial(1))->vol(), 9);
    }

    void wrongOrders_data() {
        QTest::addColumn<QString>("key");
        QTest::addColumn<QJsonValue>("value");
        const std::vector<std::pair<const char*, QJsonValue>> rows{
            {"broadcast", 0},
            {"broadcast", -3},
            {"broadcast", 1.5},
            {"rounds", 0},
            {"rounds", 1001},
            {"priority", 256},
            {"priority", "high"},
            {"volume", 26},
            {"queue", -1},
            {"whenBusy", "wait"},
            {"resume", QJsonValue()},
            {"titles", QJsonArray()},
            {"titles", "x"},
            {"titles", QJsonArray{5}},
            {"titles", QJsonArray{QJsonObject{{"url", ""}, {"ms", 3}}}},
        };
        for (const auto& [key, value] : rows)
            QTest::addRow("%s %d", key, int(&key - &rows.front().first)) << QString(key) << value;
    }

    void wrongOrders() {
        QFETCH(QString, key);
        QFETCH(QJsonValue, value);
        Announcement right;
        right.id = 5;
        right.titles.push_back({"http://x/", 0ms, false, {}});
        QString why;
        QJsonObject json = right.write();
        QVERIFY(Announcement::read(json, why));
        json[key] = value;
        QVERIFY(!Announcement::read(json, why) && !why.isEmpty());
    }
};

int main(int argc, char** argv) {
    return runTest<OrdersTest>(argc, argv);
}
#include "orders_test.moc"
