#include "support/devicelink.h"
#include "support/table.h"
#include "support/testmain.h"

using namespace std::chrono_literals;

namespace {
struct Step {
    int id; // -1: a status tick
    int priority;
    int sequence;
    int expected; // result; after a tick: the online state
    bool allowed = true;
};
constexpr int Tick = -1;

QByteArray longForm(const QByteArray& serial12, char kind) {
    QByteArray form(packets::StatusFormLength, '\0');
    form[20] = kind;
    form.replace(21, 12, serial12);
    return form + packets::statusTrailer();
}
} // namespace
Q_DECLARE_METATYPE(QVector<Step>)

class StreamTest : public QObject {
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

    void preemption_data() {
        const Table<QVector<Step>> row{"steps"};
        row("first stream", {{1, 5, 1, 0}, {1, 5, 1, 0}});
        row("first stream of priority and sequence 0", {{1, 0, 0, 0}});
        row("lower priority", {{1, 5, 1, 0}, {2, 4, 9, -3}, {1, 5, 1, 0}});
        row("lower priority after the tick", {{1, 5, 1, 0}, {Tick, 0, 0, 1}, {2, 4, 2, 0}, {1, 5, 1, -6}});
        row("higher priority, newer", {{1, 5, 1, 0}, {2, 6, 2, 0}, {1, 5, 3, -3}});
        row("higher priority, same sequence", {{1, 5, 1, 0}, {2, 6, 1, 0}});
        row("higher priority, older", {{1, 5, 3, 0}, {2, 6, 2, -6}});
        row("equal priority, other stream, same sequence", {{1, 5, 1, 0}, {2, 5, 1, -6}});
        row("equal priority, older", {{1, 5, 2, 0}, {2, 5, 1, -6}, {1, 5, 2, 0}});
        row("equal priority, newer: the sequence is taken", {{1, 5, 1, 0}, {2, 5, 2, 0}, {1, 5, 1, -6}});
        row("resumes after the tick", {{1, 5, 1, 0}, {Tick, 0, 0, 1}, {1, 5, 1, 0}});
        row("resumes under another id", {{1, 5, 1, 0}, {Tick, 0, 0, 1}, {2, 5, 1, 0}, {1, 5, 1, -6}});
        row("not allowed", {{1, 5, 1, -1, false}, {1, 5, 1, 0}});
        row("older after the tick takes the speaker", {{1, 5, 9, 0}, {Tick, 0, 0, 1}, {2, 5, 1, 0}});
    }

    void preemption() {
        QFETCH(QVector<Step>, steps);
        for (int i = 0; i < steps.size(); ++i) {
            const Step step = steps.at(i);
            if (step.id == Tick)
                session()->timeout();
            const int got = step.id == Tick
                                ? session()->onlineState()
                                : forward(step.id, step.priority, step.sequence, "x", step.allowed);
            QVERIFY2(got == step.expected, qPrintable(QString("step %1: %2").arg(i).arg(got)));
        }
    }

    void whoeverFeedsIsTold() {
        struct Feeder : Mp3Feeder {
            void gainedSpeaker(const QString& sn, const Mp3Stream& stream) override { tell('+', sn, stream); }
            void lostSpeaker(const QString& sn, const Mp3Stream& stream) override { tell('-', sn, stream); }
            void tell(char what, const QString& sn, const Mp3Stream& stream) {
                if (sn == QString(testSerial().toHex()) && stream.source == "source")
                    told += QString("%1%2.%3 ").arg(what).arg(stream.id).arg(stream.sequence);
            }
            QString told;
        } feeder;
        for (const int id : {1, 2})
            m_link->registry.setMp3Feeder(id, &feeder);
        const auto told = [&] {
            return std::exchange(feeder.told, {});
        };
        QCOMPARE(forward(1, 5, 1, "x", false), -1);
        QCOMPARE(told(), "");
        forward(1, 5, 1);
        forward(1, 5, 1);
        forward(2, 4, 2);
        QCOMPARE(told(), "+1.1 ");
        forward(1, 5, 2);
        QCOMPARE(told(), "-1.1 +1.2 ");
        forward(2, 6, 3);
        QCOMPARE(told(), "-1.2 +2.3 ");
        forward(1, 6, 4); // keeps the one that has it from going on, and is refused itself from its next on
        QCOMPARE(told(), "-2.3 ");
        forward(1, 7, 5);
        session()->timeout();
        forward(1, 7, 5);
        QCOMPARE(told(), "+1.5 -1.5 +1.5 ");
        m_speaker->close();
        QVERIFY(waitFor([&] { return !session()->isBound(); }));
        QCOMPARE(told(), "-1.5 ");
        QCOMPARE(forward(1, 7, 5), -1);
        m_link->registry.setMp3Feeder(1, nullptr);
        m_speaker = m_link->speaker(testSerial());
        QCOMPARE(forward(1, 7, 5), 0);
        QCOMPARE(told(), "");
    }

    void tickEndsAndBeginsStreams() {
        session()->sn_onlinebackdata("UA3");
        QCOMPARE(forward(7, 5, 1), 0);
        QVERIFY(!session()->isBusy());
        QVERIFY(session()->isStreamActive());
        QCOMPARE(session()->streamSource(), QString("source"));
        QCOMPARE(session()->taskName(), QString("task"));
        QCOMPARE(session()->taskId(), QString("7"));
        session()->timeout();
        QVERIFY(!session()->isStreamActive());
        QCOMPARE(session()->queuedChunks(), 0);
        QCOMPARE(session()->statusText(), QString("空闲"));

        // A stream starts its count at 100; the 2000th chunk's tick finds it still active.
        QCOMPARE(forward(7, 5, 1), 0);
        for (int i = 0; i < 1899; ++i)
            forward(7, 5, 1);
        session()->timeout();
        QVERIFY(session()->isStreamActive());
        QCOMPARE(session()->onlineState(), int(SAobj::Online));
        session()->timeout();
        QVERIFY(!session()->isStreamActive());
    }

    void takingOverClearsTheQueue() {
        for (int i = 0; i < 5; ++i)
            forward(1, 5, 1);
        QCOMPARE(session()->queuedChunks(), 5);
        forward(2, 6, 2);
        QCOMPARE(session()->queuedChunks(), 1);
        session()->timeout();
        session()->push_mp3("waits");
        forward(2, 6, 2); // resumes: the queue stays
        QCOMPARE(session()->queuedChunks(), 2);
    }

    void chunkTooManyEmptiesTheQueue() {
        for (const int limit : {20, 3}) { // AryLen: as it stands by default, and another
            session()->setSettings({limit, 0, 0});
            for (int i = 0; i < limit; ++i)
                session()->push_mp3("x");
            QCOMPARE(session()->queuedChunks(), limit);
            session()->push_mp3("x");
            QCOMPARE(session()->queuedChunks(), 0);
        }
    }

    void holdDiscards() {
        session()->setHold(true);
        session()->push_mp3("x");
        session()->wifi_push_mp3("x");
        QCOMPARE(session()->queuedChunks(), 0);
        QVERIFY(holdsFor([&] { return m_speaker->received().isEmpty(); }, 30ms));
    }

    void clearQueueOfTheCurrentStreamOnly() {
        forward(3, 5, 1);
        session()->clear_que(2);
        QCOMPARE(session()->queuedChunks(), 1);
        session()->clear_que(3);
        QCOMPARE(session()->queuedChunks(), 0);
    }

    void pullsInFives_data() {
        // answer: after "a", which was written without being asked for
        const Table<QByteArrayList, QByteArray> row{"writes", "answer"};
        row("none", {}, {});
        row("four bytes", QByteArrayList{"1234"}, {});
        row("one", QByteArrayList{"12345"}, "b");
        row("two joined", QByteArrayList{"1234512345"}, "bc");
        row("one split", QByteArrayList{"12", "345"}, "b");
        row("one and a half, then the rest", QByteArrayList{"12345123", "45"}, "bc");
        row("more than waits", QByteArrayList{QByteArray(500, '1')}, "bcd");
    }

    void pullsInFives() {
        QFETCH(QByteArrayList, writes);
        QFETCH(QByteArray, answer);
        const auto data = m_link->attach(testSerial());
        for (const char* const chunk : {"a", "b", "c", "d"})
            session()->push_mp3(chunk);
        QVERIFY(data->waitReceived("a"));
        QByteArray expected("a");
        for (const QByteArray& bytes : writes) {
            data->send(bytes);
            QTest::qWait(20); // two reads of the server
        }
        expected += answer;
        QVERIFY2(data->waitReceived(expected), data->received());
        QVERIFY(holdsFor([&] { return data->received() == expected; }, 20ms));
    }

    void heartbeatsAreSkipped_data() {
        const Table<QByteArrayList, QByteArray> row{"queue", "answer"};
        row("one", QByteArrayList{"HELL", "b"}, "b");
        row("two", QByteArrayList{"HELL", "HELL", "b"}, "b");
        row("three", QByteArrayList{"HELL", "HELL", "HELL", "b"}, "HELL");
        row("nothing else", QByteArrayList{"HELL"}, {});
        row("another entry of four bytes", QByteArrayList{"four", "b"}, "four");
    }

    void heartbeatsAreSkipped() {
        QFETCH(QByteArrayList, queue);
        QFETCH(QByteArray, answer);
        const auto data = m_link->attach(testSerial());
        session()->push_mp3("a");
        for (const QByteArray& entry : queue)
            session()->push_mp3(entry);
        data->send("12345");
        QVERIFY2(data->waitReceived("a" + answer), data->received());
        QVERIFY(holdsFor([&] { return data->received() == "a" + answer; }, 20ms));
    }

    // From the first status tick on a stream's requests are looked for chunk by chunk; that must not show.
    void requestsInTimeAndLate() {
        const auto data = m_link->attach(testSerial());
        QByteArray expected;
        const auto pushes = [&](const QByteArray& chunk) {
            forward(1, 5, 1, chunk);
            expected += chunk;
            return data->waitReceived(expected);
        };
        QVERIFY(pushes("a"));
        session()->timeout();
        for (const char* const chunk : {"b", "c"}) { // asked for before they are there
            data->send("12345");
            QVERIFY(pushes(chunk));
        }
        forward(1, 5, 1, "d"); // there before it is asked for
        data->send("12345");
        QVERIFY(data->waitReceived(expected += "d"));
        session()->timeout();
        data->close();
        forward(1, 5, 1, "e");
        QVERIFY(waitFor([&] { return !session()->isMp3Connected(); }));
    }

    void reportPullsToo() {
        const auto data = m_link->attach(testSerial());
        for (const char* const chunk : {"a", "b"})
            session()->push_mp3(chunk);
        m_speaker->send("xxMP__3");
        QVERIFY(data->waitReceived("ab"));
    }

    void chunksThatWaitedGoOutAtOnce() {
        session()->push_mp3("a");
        session()->push_mp3("b");
        const auto data = m_link->attach(testSerial());
        QVERIFY(data->waitReceived("a"));
        data->send("1234512345"); // the second finds nothing: what comes next is written at once
        QVERIFY(data->waitReceived("ab"));
        session()->push_mp3("c");
        QVERIFY(data->waitReceived("abc"));
    }

    void disabledSessionWritesNothing() {
        const auto data = m_link->attach(testSerial());
        session()->setEnabled(false);
        session()->push_mp3("a");
        QVERIFY(holdsFor([&] { return data->received().isEmpty(); }, 30ms));
        session()->setEnabled(true);
        session()->push_mp3("b");
        QVERIFY(data->waitReceived("b"));
    }

    void wifiSpeakerIsWrittenToDirectly() {
        session()->setleixing(SAobj::WifiKind);
        forward(1, 5, 1, "a");
        forward(1, 5, 1, "b");
        QVERIFY(waitFor([&] { return m_speaker->received().startsWith('K'); }));
        RawConnection data(m_link->dataPort(), longForm(testSerial().left(12), 2));
        QVERIFY(data.waitReceived("ab"));
        forward(1, 5, 1, "c");
        forward(1, 5, 1, "d");
        QVERIFY(data.waitReceived("abcd"));
    }

    // Asked for at once, by the check 7261 ms after registration, and 10 s after that. Meanwhile a connection
    // that never says anything is sent away.
    void connectIsAskedForAgain() {
        RawConnection silent(m_link->port);
        QElapsedTimer clock;
        clock.start();
        for (int i = 0; i < 3; ++i)
            session()->push_mp3("x");
        const QByteArray request =
            "K" + QByteArray::fromHex("0a010203") + packets::portBytes(m_link->dataPort());
        const auto asked = [&](int times) {
            return m_speaker->received() == request.repeated(times);
        };
        QVERIFY(waitFor([&] { return asked(1); }));
        QVERIFY(waitFor([&] { return asked(2); }, 9s));
        QVERIFY(clock.elapsed() > 7000);
        QVERIFY(waitFor([&] { return asked(3); }, 12s));
        QVERIFY(clock.elapsed() > 17000);
        QVERIFY(silent.isOpen());
        QVERIFY(silent.waitClosed(15s));
        QVERIFY(clock.elapsed() > 29000);
        QCOMPARE(m_speaker->keepAlives() >= 5, true);
    }

    void attaching_data() {
        // kind: 0: refused
        const Table<QByteArray, QString, int> row{"message", "from", "kind"};
        const QByteArray packet = sim::registrationPacket(testSerial(), 20);
        const QByteArray form = longForm(testSerial().left(12), 2);
        row("packet", packet, "127.0.0.1", 1);
        row("packet and a request", packet + "12345", "127.0.0.1", 1);
        row("long form", form, "127.0.0.1", 2);
        row("another address", packet, "127.0.0.2", 0);
        row("long form, another address", form, "127.0.0.2", 0);
        row("unknown serial", sim::registrationPacket(testSerial(9), 20), "127.0.0.1", 0);
        row("unknown short serial", longForm(QByteArray(12, 'x'), 1), "127.0.0.1", 0);
        row("17 bytes", packet.left(17), "127.0.0.1", 0);
        row("19 bytes", packet + "1", "127.0.0.1", 0);
        row("request alone", "12345", "127.0.0.1", 0);
        row("trailer alone", "DEIFS", "127.0.0.1", 0);
        row("random", QByteArray(300, '\xa5'), "127.0.0.1", 0);
    }

    void attaching() {
        QFETCH(QByteArray, message);
        QFETCH(QString, from);
        QFETCH(int, kind);
        RawConnection data(m_link->dataPort(), message, QHostAddress(from));
        if (kind == 0) {
            QVERIFY(data.waitClosed());
            QVERIFY(!session()->isMp3Connected());
            return;
        }
        QVERIFY(waitFor([&] { return session()->isMp3Connected(); }));
        QCOMPARE(session()->leixing(), kind);
        session()->push_mp3("a");
        QVERIFY(data.waitReceived("a"));
    }

    void secondDataConnectionReplaces() {
        const auto first = m_link->attach(testSerial());
        session()->push_mp3("a");
        session()->push_mp3("x");
        first->send("12345123"); // a request and more than half of the next
        QVERIFY(first->waitReceived("ax"));
        RawConnection second(m_link->dataPort(), sim::registrationPacket(testSerial(), 20));
        QVERIFY(first->waitClosed());
        QVERIFY(session()->isMp3Connected());
        for (const char* const chunk :
             {"b", "c"}) // what the first was last sent, and asked, no longer counts
            session()->push_mp3(chunk);
        second.send("12");
        QVERIFY(second.waitReceived("b"));
        QVERIFY(holdsFor([&] { return second.received() == "b"; }, 30ms));
        second.send("345");
        QVERIFY(second.waitReceived("bc"));
    }

    void endOfTheDataConnection() {
        const auto data = m_link->attach(testSerial());
        session()->push_mp3("a");
        QVERIFY(data->waitReceived("a"));
        data->close();
        QVERIFY(waitFor([&] { return !session()->isMp3Connected(); }));
        QVERIFY(session()->isOnline());
        session()->push_mp3("b");
        QVERIFY(waitFor([&] { return m_speaker->received().startsWith('K'); }));
        const auto again = m_link->attach(testSerial());
        QVERIFY(again->waitReceived("b"));
    }

    void endOfTheControlConnectionEndsBoth() {
        const auto data = m_link->attach(testSerial());
        m_speaker->close();
        QVERIFY(data->waitClosed());
        QVERIFY(!session()->isMp3Connected());
        RawConnection again(m_link->dataPort(), sim::registrationPacket(testSerial(), 20));
        QVERIFY(again.waitClosed());
    }

private:
    SAobj* session() const { return m_link->session(testSerial()); }
    int forward(int id, int priority, int sequence, const QByteArray& chunk = "chunk",
                bool allowed = true) const {
        return session()->send_mp3data_mut("source", id, "task", priority, sequence, allowed, chunk);
    }

    std::unique_ptr<DeviceLink> m_link;
    std::unique_ptr<RawConnection> m_speaker;
};

int main(int argc, char** argv) {
    return runTest<StreamTest>(argc, argv);
}
#include "device_stream_test.moc"
