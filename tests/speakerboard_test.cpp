#include "service/speakerboard.h"
#include "support/devicelink.h"
#include "support/testmain.h"

using State = SpeakerState::State;

class SpeakerBoardTest : public QObject {
    Q_OBJECT
private slots:
    void init() {
        m_link = std::make_unique<DeviceLink>();
        m_board = std::make_unique<SpeakerBoard>(&m_link->registry);
    }
    void cleanup() {
        m_board.reset();
        m_link.reset();
    }

    /// What a speaker does, step by step, and what the board makes of it.
    void followsASpeaker() {
        const QString sn = serial(1);
        QCOMPARE(m_board->state(sn).state, State::Offline);
        QVERIFY(m_board->state(sn).since > 0 && m_board->state(sn).lastSeen == 0);
        auto speaker = m_link->speaker(testSerial(1));
        QVERIFY(becomes(sn, State::Idle));
        QCOMPARE(m_board->state(sn).volume, 20);

        speaker->send("UV1204");
        QVERIFY(waitFor([&] { return m_board->state(sn).firmware == 1204; }));
        speaker->send("UA3");
        QVERIFY(becomes(sn, State::Playing));
        m_board->setPlaying(77, "gong", {sn});
        m_board->setPlaying(76, "ding", {}, {sn}); // no longer its own
        QCOMPARE(m_board->state(sn).broadcast, quint64(77));
        speaker->send("UA1");
        QVERIFY(becomes(sn, State::Idle));
        QVERIFY(m_board->state(sn).broadcast == 0 && m_board->state(sn).playing.isEmpty());

        m_link->registry.setRestricted(sn, true);
        QVERIFY(waitFor([&] { return !m_board->state(sn).isEnabled; }));
        speaker->close();
        QVERIFY(becomes(sn, State::Offline));
        QVERIFY(m_board->state(sn).lastSeen >= m_board->state(sn).since);
        QCOMPARE(m_board->counts(), (std::array<int, 4>{1, 0, 0, 0}));
    }

    /// Whoever asks page by page, while others change, ends with what holds of each.
    void changesComeInPages() {
        std::vector<std::unique_ptr<RawConnection>> speakers;
        for (int n = 1; n <= 5; ++n)
            speakers.push_back(m_link->speaker(testSerial(n)));
        QVERIFY(waitFor([&] { return m_board->counts()[1] == 5; }));
        QMap<QString, int> volumes;
        SpeakerBoard::Changes page = m_board->changesSince({}, 2);
        QVERIFY(page.isWhole && page.isMore && page.speakers.size() == 2);
        take(page, volumes);
        setVolume(1, 3); // was on the first page
        setVolume(5, 4); // is still to come
        for (int pages = 0; page.isMore && pages < 10; ++pages) {
            page = m_board->changesSince(page.mark, 2);
            QVERIFY(!page.isWhole && page.gone.empty());
            take(page, volumes);
        }
        QCOMPARE(volumes.values(), (QList<int>{3, 20, 20, 20, 4}));
        QVERIFY(m_board->changesSince(page.mark, 2).speakers.empty());
        setVolume(2, 9);
        QCOMPARE(m_board->changesSince(page.mark, 2).speakers.front().serial, serial(2));
    }

    /// Made-up serials that have made room leave the board too, and whoever follows it hears of it.
    void endedSessionsGo() {
        QObject parent;
        constexpr int Many = 12'000;
        for (int n = 1; n <= Many; ++n)
            m_link->registry.addSession(serial(n), &parent)->setVol(7);
        QVERIFY(waitFor([&] { return m_board->counts()[0] == Many; }));
        const SpeakerBoard::Mark mark = m_board->changesSince({}, Many).mark;
        m_link->registry.removeSessionsOf(&parent);
        m_link->registry.addSession(serial(1), &parent)->setVol(9);
        QVERIFY(waitFor([&] { return m_board->counts()[0] == 1; }));
        const SpeakerBoard::Changes changes = m_board->changesSince(mark, Many);
        QVERIFY(!changes.isWhole);
        QCOMPARE(int(changes.gone.size()), Many - 1);
        QCOMPARE(changes.speakers.front().volume, 9);
        m_link->registry.removeSessionsOf(&parent);
    }

private:
    static QString serial(int n) { return testSerial(n).toHex(); }
    bool becomes(const QString& sn, State state) {
        return waitFor([&] { return m_board->state(sn).state == state; });
    }
    static void take(const SpeakerBoard::Changes& page, QMap<QString, int>& volumes) {
        for (const SpeakerState& speaker : page.speakers)
            volumes[speaker.serial] = speaker.volume;
    }
    void setVolume(int n, int volume) {
        m_link->session(testSerial(n))->setVol(volume);
        waitFor([&] { return m_board->state(serial(n)).volume == volume; });
    }

    std::unique_ptr<DeviceLink> m_link;
    std::unique_ptr<SpeakerBoard> m_board;
};

int main(int argc, char** argv) {
    return runTest<SpeakerBoardTest>(argc, argv);
}
#include "speakerboard_test.moc"
