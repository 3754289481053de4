// What becomes of an order at each speaker, as evidence comes; the health of speakers; numbers; and the
// record in this process, without a database.
#include "journal/health.h"
#include "journal/journal.h"
#include "journal/numbers.h"
#include "journal/receipts.h"
#include "support/devicelink.h"
#include "support/testmain.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <set>

using namespace std::chrono_literals;
using S = ReceiptState;
using E = Evidence;

class JournalTest : public QObject {
    Q_OBJECT
private slots:
    void receipts_data() {
        QTest::addColumn<QVector<int>>("evidence");
        QTest::addColumn<int>("state");
        const auto row = [](const char* name, std::initializer_list<E> evidence, S state) {
            QVector<int> list;
            for (const E one : evidence)
                list << static_cast<int>(one);
            QTest::newRow(name) << list << static_cast<int>(state);
        };
        row("played", {E::Sent, E::Begun, E::Begun, E::Over}, S::Completed);
        row("the next address ends it", {E::Sent, E::Begun, E::OtherBegun}, S::Completed);
        row("what played before is no end", {E::Sent, E::OtherBegun, E::Begun}, S::Started);
        row("silent", {E::Sent, E::NotHeard, E::TimeOver}, S::Silent);
        row("late report", {E::Sent, E::NotHeard, E::Begun}, S::Started);
        row("title after title", {E::Sent, E::Begun, E::Over, E::Sent, E::NotHeard}, S::Started);
        row("gone between titles", {E::Sent, E::Begun, E::Over, E::Away}, S::Lost);
        row("lost", {E::Sent, E::Begun, E::LineEnded, E::Over}, S::Lost);
        row("and back", {E::Sent, E::Begun, E::LineEnded, E::Begun, E::Over}, S::Completed);
        row("came late", {E::Away, E::Sent, E::Begun}, S::Started);
        row("stopped", {E::Sent, E::Begun, E::Stop, E::Over}, S::Stopped);
        row("taken", {E::Sent, E::Begun, E::Taken, E::Stop, E::Over}, S::Overruled);
        row("taken after its end", {E::Sent, E::Begun, E::Over, E::Taken}, S::Completed);
        row("interrupted, goes on", {E::Sent, E::Begun, E::Held, E::Sent, E::Begun, E::Over}, S::Completed);
        row("its time is over", {E::Sent, E::Begun, E::TimeOver}, S::Completed);
        row("waited in vain", {E::Expected, E::TimeOver}, S::Refused);
        row("disabled", {E::Forbidden, E::Begun, E::Stop}, S::Refused);
        row("others' reports", {E::Away, E::Begun, E::Over}, S::Offline);
    }
    void receipts() {
        QFETCH(QVector<int>, evidence);
        QFETCH(int, state);
        S now = S::Waiting;
        for (const int one : evidence)
            now = stateAfter(now, static_cast<E>(one));
        QCOMPARE(static_cast<int>(now), state);
    }

    void numbers() {
        constexpr qint64 today = 1'800'000'000'000;
        BroadcastNumbers here(7), there(8);
        std::set<quint64> given;
        quint64 last = 0;
        for (int i = 0; i < 1000; ++i) { // within one moment, and with the clock set back
            const quint64 number = here.next(i < 500 ? today : today - 86'400'000);
            QVERIFY(number > last && number < quint64{1} << 53);
            QCOMPARE(BroadcastNumbers::nodeOf(number), 7);
            given.insert(last = number);
            QVERIFY(given.insert(there.next(today)).second);
        }
        QVERIFY(BroadcastNumbers::timeOf(last) - today < 1000);
        QVERIFY(BroadcastNumbers::firstAt(today) < *given.begin() &&
                last < BroadcastNumbers::firstAt(today + 1000));
        BroadcastNumbers restarted(7);
        restarted.raise(last);
        QVERIFY(restarted.next(today - 1) > last);
    }

    void health() {
        HealthBook book;
        const QString sn = "a";
        HealthBook::Time now = 1h;
        std::vector<SpeakerHealth> told;
        const auto note = [&](std::optional<SpeakerHealth> change) {
            if (change)
                told.push_back(*change);
        };
        for (int loss = 0; loss < 8; ++loss) {
            note(book.wentOffline(sn, now += 30s));
            note(book.cameOnline(sn, now += 1s));
        }
        using H = SpeakerHealth;
        const std::vector<H> expected{H::Offline, H::Ok,      H::Offline, H::Ok,   H::Offline,
                                      H::Ok,      H::Offline, H::Ok,      H::Flaky};
        QVERIFY(told == expected);
        QVERIFY(book.recovered(now + 59min).empty() && book.of(sn) == H::Flaky);
        QCOMPARE(book.recovered(now + 61min).size(), size_t{1});
        QVERIFY(book.of(sn) == H::Ok);
        note(book.wasSilent("b", now));
        note(book.reported("b", now)); // one order in between
        note(book.wasSilent("b", now));
        QCOMPARE(told.size(), expected.size());
        note(book.wasSilent("b", now));
        QVERIFY(told.back() == H::Silent && book.of("b") == H::Silent);
    }

    /// Commands with and without a number, joined ones, stops, and who has the speaker afterwards.
    void commandsMakeReceipts() {
        DeviceLink link;
        Journal journal(&link.registry, nullptr, 1, {});
        const auto one = link.speaker(testSerial(1));
        const auto two = link.speaker(testSerial(2));
        const QString a = testSerial(1).toHex(), b = testSerial(2).toHex(), none = QString(32, '0');
        const auto order = [&](const char* word, const QJsonArray& speakers, const QJsonValue& number,
                               const char* file) {
            const QJsonObject request{
                {"cmd", word}, {"snlist", speakers}, {"order", number}, {"filelist", QJsonArray{file}}};
            link.registry.Diamonds_jsondidocom(QJsonDocument(request).toJson(QJsonDocument::Compact));
        };
        Broadcast bell;
        bell.endsByItself = false;
        const quint64 first = journal.begin(bell), second = journal.begin(bell);
        const auto number = [](quint64 id) {
            return static_cast<double>(id);
        };
        const auto is = [&](quint64 id, const QString& sn, S state) {
            return waitFor([&] { return journal.receipt(id, sn) == state; }, 5s);
        };
        order("PLAYOFF", {a, b, none, none},
              QJsonArray{QJsonArray{number(first), 1}, QJsonArray{number(second), 3}}, "http://x/one.mp3");
        QVERIFY(is(first, a, S::Sent) && is(second, b, S::Sent) && is(second, none, S::Offline));
        QVERIFY(!journal.receipt(first, b));
        QCOMPARE(journal.standing(second)->targets, 2);
        one->send("UA2/one.mp3");
        QVERIFY(is(first, a, S::Started));
        order("PLAYOFF", {a, b}, number(second), "http://x/two.mp3"); // takes the first one's speaker
        QVERIFY(is(first, a, S::Overruled) && is(second, a, S::Sent));
        two->send("UA2/two.mp3");
        QVERIFY(is(second, b, S::Started));
        two->close();
        QVERIFY(is(second, b, S::Lost));
        order("PLAYAS", {a}, "none", "http://x/line.mp3B"); // the form of a play, and none
        order("FORCESTOP", {a}, {}, "");
        QVERIFY(is(second, a, S::Stopped));
        journal.end(second, BroadcastState::Stopped, "by hand");
        QCOMPARE(nameOf(journal.standing(second)->state), QString("stopped"));
        order("PLAYOFF", {a}, {}, "http://x/three.mp3"); // a broadcast of its own
        const auto running = journal.running();
        QVERIFY(running.back().id > second && running.back().broadcast.kind == Broadcast::Kind::Direct);
        const auto& counts = running.back().counts;
        QCOMPARE(counts[static_cast<size_t>(S::Sent)], 1);
        link.registry.setRestricted(a, true);
        order("PLAYOFF", {a}, {}, "http://x/four.mp3");
        QVERIFY(is(journal.running().back().id, a, S::Refused));
    }
};

int main(int argc, char** argv) {
    return runTest<JournalTest>(argc, argv);
}
#include "journal_test.moc"
