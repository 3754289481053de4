// What was played where, through the real service into its database.
#include "support/mariadb.h"
#include "support/speakers.h"
#include "support/table.h"
#include "support/testmain.h"

#include <QDateTime>
#include <QSqlDatabase>
#include <QSqlQuery>

namespace {
using namespace std::chrono_literals;

/// A service with an account and speakers, of which the last ones may be missing.
struct Site {
    explicit Site(const ServiceOptions& options, int count, int missing = 0, const sim::Misfits& misfits = {},
                  std::chrono::milliseconds length = 2s)
        : service(options) {
        if (!service.start())
            qFatal("no service");
        account = service.addAccount("site");
        sim::SpeakerOptions first = speakersAt(service);
        first.player.pretended = length;
        for (int i = 0; i < count; ++i)
            serials << sim::serialAt(first.serial, static_cast<quint32>(i)).toHex();
        service.giveSpeakers(account, serials);
        fleet = onlineFleet(first, count - missing, misfits);
    }
    void play(const QStringList& speakers, const char* url = "http://127.0.0.1:1/bell.mp3") {
        service.http().postForm("/user/urlplay",
                                account.params({{"url", url}, {"snlist", speakers.join('|')}}));
    }
    QVariant value(const QString& statement) {
        const auto rows = service.sql(statement);
        return rows.isEmpty() ? QVariant() : rows.first().first();
    }
    bool becomes(const QString& statement, const QString& text, std::chrono::milliseconds limit = 20s) {
        return waitFor([&] { return value(statement).toString() == text; }, limit);
    }
    Service service;
    Account account;
    QStringList serials;
    std::unique_ptr<sim::Fleet> fleet;
};

ServiceOptions ofKind(int kind) {
    ServiceOptions options;
    options.kind = kind;
    return options;
}

const QString LastState = "SELECT state FROM broadcast ORDER BY id DESC LIMIT 1";
const QString Completed = "SELECT COUNT(*) FROM broadcast WHERE state = 'done' AND n_completed = 1";

} // namespace

class JournalServiceTest : public QObject {
    Q_OBJECT
private slots:
    /// 100 away, 20 that never report, 20 that drop, 10 out of use, 50 taken half-way, 800 that play it.
    void everySpeakerIsAccountedFor_data() { addKinds({3, 1}); }
    void everySpeakerIsAccountedFor() {
        QFETCH(int, kind);
        Site site(ofKind(kind), 1000, 100, {20, 20, 1s}, 12s);
        const QStringList disabled = site.serials.mid(40, 10), taken = site.serials.mid(50, 50);
        site.service.command({{"cmd", "useing_disable"}, {"snlist", QJsonArray::fromStringList(disabled)}});
        site.play(site.serials);
        QVERIFY(waitFor([&] { return site.fleet->at(899).player().isPlaying(); }));
        site.play(taken, "http://127.0.0.1:1/alarm.mp3");
        QVERIFY(site.becomes("SELECT COUNT(*) FROM broadcast", "2"));
        const QString first = site.value("SELECT MIN(id) FROM broadcast").toString();
        QVERIFY(site.becomes("SELECT state FROM broadcast WHERE id = " + first, "done", 60s));
        const auto row = site.service.sql("SELECT * FROM broadcast WHERE id = " + first).first();
        QCOMPARE(row["targets"].toInt(), 1000);
        const std::map<QString, QList<int>> expected{{"n_completed", {800, 4}}, {"n_offline", {100, 1}},
                                                     {"n_silent", {20, 8}},     {"n_lost", {20, 7}},
                                                     {"n_refused", {10, 9}},    {"n_overruled", {50, 6}}};
        for (const auto& [name, count] : expected) {
            QVERIFY2(row[name].toInt() == count[0], qPrintable(name + ' ' + row[name].toString()));
            QCOMPARE(site.value(QString("SELECT COUNT(*) FROM receipt WHERE broadcast = %1 AND state = %2")
                                    .arg(first)
                                    .arg(count[1]))
                         .toInt(),
                     count[0]);
        }
        QCOMPARE(site.value("SELECT COUNT(DISTINCT by_broadcast) FROM receipt WHERE state = 6").toInt(), 1);
        QCOMPARE(
            site.value("SELECT COUNT(*) FROM receipt WHERE state = 4 AND started >= sent AND ended > started "
                       "AND broadcast = " +
                       first)
                .toInt(),
            800);
    }

    /// What was playing when the service was killed has failed; what had ended is there whole.
    void killed() {
        Site site({}, 2, 0, {}, 600s);
        site.play(site.serials);
        QVERIFY(site.becomes(LastState, "playing"));
        QVERIFY(waitFor([&] { return site.value("SELECT COUNT(*) FROM receipt").toInt() == 2; }));
        site.service.kill9();
        QVERIFY(site.service.start());
        QVERIFY(site.becomes(LastState, "failed"));
        QCOMPARE(site.value("SELECT reason FROM broadcast").toString(), QString("the service ended"));
        QCOMPARE(site.value("SELECT n_lost FROM broadcast").toInt(), 2);
        QCOMPARE(site.value("SELECT COUNT(*) FROM receipt WHERE state = 7").toInt(), 2);
        QCOMPARE(
            site.value("SELECT COUNT(*) FROM journal WHERE kind = 'direct' AND state = 'failed'").toInt(), 1);
        QVERIFY(
            site.becomes("SELECT COUNT(*) FROM journal WHERE kind = 'service' AND state = 'started'", "2"));
    }

    /// A lock that nobody lets go of delays no play and loses no row.
    void lockedDatabase() {
        Site site({}, 1, 0, {}, 100ms);
        {
            QSqlDatabase other = QSqlDatabase::addDatabase("QSQLITE", "locker");
            other.setDatabaseName(site.service.file(".Elvor.db"));
            QVERIFY(other.open());
            QVERIFY(QSqlQuery(other).exec("BEGIN IMMEDIATE"));
            for (int i = 0; i < 5; ++i) {
                site.service.command({{"cmd", "PLAYOFF"},
                                      {"snlist", QJsonArray{site.serials[0]}},
                                      {"filelist", QJsonArray{QString("http://x/%1.mp3").arg(i)}}});
                QVERIFY(waitFor([&] { return site.fleet->at(0).count(sim::Op::PlayList) == i + 1; }, 2s));
                QVERIFY(waitFor([&] { return !site.fleet->at(0).player().isPlaying(); }));
            }
            QVERIFY(site.service.waitForLog("does not take what is written"));
            QVERIFY(QSqlQuery(other).exec("ROLLBACK"));
            other.close();
        }
        QSqlDatabase::removeDatabase("locker");
        QVERIFY(site.becomes("SELECT COUNT(*) FROM broadcast WHERE state = 'done' AND targets = 1", "5"));
        QVERIFY(site.becomes("SELECT COUNT(*) FROM journal WHERE kind = 'link' AND name = 'database'", "2"));
    }

    /// A bell: in time, with the speakers' receipts, and one that nobody heard.
    void bells() {
        ServiceOptions options;
        options.settings = {{"taskstart", 0}, {"taskend", 86400}};
        Site site(options, 2, 1, {}, 1s);
        site.service.sql(QString("INSERT INTO userfile (userid, url, len) VALUES (%1, 'mp3/bell.mp3', 1)")
                             .arg(site.account.id));
        for (int device = 1; device <= 2; ++device) {
            const QString time = QDateTime::currentDateTime().addSecs(2).toString("h:m:s");
            const auto added = site.service.http().postForm(
                "/user/add_task", site.account.params({{"snids", QString::number(device)},
                                                       {"fileids", "1"},
                                                       {"len", "60"},
                                                       {"task_name", QString("bell %1").arg(device)},
                                                       {"start_time", time},
                                                       {"kind", "1"}}));
            QVERIFY(added.res());
        }
        QVERIFY(site.becomes("SELECT state FROM journal WHERE kind = 'bell' AND name = 'bell 1'", "played"));
        QVERIFY(site.becomes(Completed, "1"));
        const auto row =
            site.service.sql("SELECT * FROM broadcast WHERE kind = 'bell' AND name = 'bell 1'").first();
        QVERIFY(row["schedule"].toInt() == 1 && row["due"].toLongLong() % 1000 == 0 &&
                row["owner"].toInt() == site.account.id);
        QVERIFY(row["started"].toLongLong() >= row["due"].toLongLong());
    }
};

int main(int argc, char** argv) {
    return runTest<JournalServiceTest>(argc, argv);
}
#include "journal_service_test.moc"
