#include "core/sql/migrations.h"
#include "core/sql/sqlconnection.h"
#include "core/sql/sqlite.h"
#include "support/mariadb.h"
#include "support/testmain.h"
#include "support/waitfor.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonDocument>
#include <QRegularExpression>

class MysqlTest : public QObject {
    Q_OBJECT
private slots:
    void initTestCase() {
        QVERIFY(m_server.start());
        m_access = m_server.createDatabase("speakers");
        m_db = open();
        QVERIFY(m_db->get_is_aready());
        QFile script(":/etc/ttys/elvor1.sql");
        QVERIFY(script.open(QIODevice::ReadOnly));
        const QString statements = QString::fromUtf8(script.readAll());
        for (int round = 0; round < 2; ++round) // a database that is in use is made anew
            QVERIFY(m_db->runScript(statements) >= 3);
    }

    void init() {
        for (const char* table : {"rizhi", "task", "taskpop"})
            QVERIFY(m_db->exec(QString("DELETE FROM ") + table));
    }

    void olderDatabasesAreBroughtUpToDate() {
        const QByteArray columns = "SELECT table_name, column_name, column_type FROM "
                                   "information_schema.columns WHERE table_schema = 'speakers' ORDER BY 1, 2";
        const QByteArray whole = m_server.sql(columns);
        const QRegularExpression made("CREATE TABLE IF NOT EXISTS `(\\w+)`");
        for (const QFileInfo& step : QDir(":/etc/ttys/migrations").entryInfoList({"*.mysql.sql"})) {
            QFile file(step.filePath());
            QVERIFY(file.open(QIODevice::ReadOnly));
            for (auto table = made.globalMatch(file.readAll()); table.hasNext();)
                QVERIFY(m_db->exec("DROP TABLE " + table.next().captured(1)));
        }
        QVERIFY(m_db->runScript("DROP TABLE schema_version; DROP INDEX taskfile_list ON taskfile;"
                                "CREATE INDEX taskfile_task ON taskfile (taskid, fileid)") >= 0);
        QString why;
        for (int time = 0; time < 2; ++time)
            QVERIFY2(migrateSchema(*m_db, why), qPrintable(why));
        QCOMPARE(m_server.sql("SELECT MAX(version) FROM speakers.schema_version").trimmed(),
                 QByteArray::number(newestSchemaVersion()));
        QCOMPARE(m_server.sql(columns), whole); // by either road the same
        QCOMPARE(m_server.sql("SELECT DISTINCT index_name FROM information_schema.statistics WHERE "
                              "table_schema = 'speakers' AND index_name LIKE 'taskfile_%' ORDER BY 1"),
                 QByteArray("taskfile_file\ntaskfile_list\n"));
    }

    void textsSurvive() {
        const QString text = QString::fromUtf8("三年级二班 🔔 \"é\" `x` %_' or '1'='1\\");
        QVERIFY(insert(*m_db, text));
        const SqlResult rows = m_db->run("SELECT * FROM rizhi where `info` = '@info'", {{"@info", text}});
        QCOMPARE(rows.text(0, "info"), text);
        const QByteArray onServer = m_server.sql("SELECT HEX(info) FROM speakers.rizhi").trimmed();
        QCOMPARE(QByteArray::fromHex(onServer), text.toUtf8());
        // The longer text columns come back as text as well.
        QVERIFY(m_db->run("UPDATE xieyi_mod SET xieyi = '@x' WHERE id = '1'", {{"@x", text}}).ok);
        QCOMPARE(
            m_db->run("SELECT xieyi FROM xieyi_mod").objects().at(0).toObject().value("xieyi").toString(),
            text);
    }

    void looseTypesAreTaken() {
        const SqlResult task = m_db->run("INSERT INTO  `task` (`userid`, `start_time`, `len`, `week`) VALUES "
                                         "('1', '3600', '', '1111111');");
        QVERIFY2(task.ok, qPrintable(task.error));
        QVERIFY(task.lastId > 0);
        QCOMPARE(
            m_db->run("SELECT * FROM task where start_time = '3600' and enable != 0 ;").integer(0, "len"), 0);
        QVERIFY(m_db->run("INSERT INTO taskpop (`status`, `kind`) VALUES ('11', '2')").ok);
        QCOMPARE(m_db->run("SELECT * FROM taskpop where status = '11' and kind = '2' and `status` != 0;")
                     .rows.size(),
                 1);
        QCOMPARE(m_db->run("select date(\"2026-11-21\") as d").text(0, "d"), "2026-11-21");
        QVERIFY(m_db->run("SELECT * FROM task where id in ( @ids )", {{"@ids", QList<qint64>{}}}).isEmpty());
    }

    // What an endpoint makes of a row must not depend on the database.
    void repliesAreThoseOfSqlite() {
        QTemporaryDir directory;
        QVERIFY(QDir::setCurrent(directory.path()));
        sqlite lite(QString(), 0, QString(), QString(), QString(), 3);
        QFile script(":/etc/ttys/sqlite3main.sql");
        QVERIFY(script.open(QIODevice::ReadOnly));
        QVERIFY(lite.runScript(QString::fromUtf8(script.readAll())) >= 0);

        const QStringList tables =
            QString::fromUtf8(m_server.sql("SHOW TABLES FROM speakers")).split('\n', Qt::SkipEmptyParts);
        int checked = 0;
        for (const QString& table : tables) {
            if (!lite.run("SELECT * FROM " + table).columns.contains("id"))
                continue;
            QJsonArray rows[2];
            int side = 0;
            for (sqlite* db : {&lite, m_db.get()}) {
                db->exec("DELETE FROM " + table);
                const QString key = table == "sbox_device_info" ? "(`id`, `device_seed`) VALUES (7, 'ab')"
                                    : table == "receipt"        ? "(`broadcast`, `serial`) VALUES (7, 'ab')"
                                                                : "(`id`) VALUES (7)";
                if (!db->run("INSERT INTO " + table + ' ' + key).ok)
                    break; // none of the older paths' tables: it has columns that must be given
                QJsonObject row = db->run("SELECT * FROM " + table).object(0);
                for (const char* time : {"ctime", "changetime", "updatetime", "time"}) {
                    if (row.contains(time)) {
                        const QRegularExpression form("^\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d$");
                        QVERIFY2(row.value(time).toString().contains(form), qPrintable(table));
                        row.remove(time);
                    }
                }
                rows[side++].append(row);
            }
            checked += side == 2 ? 1 : 0;
            if (side > 0)
                QCOMPARE(QJsonDocument(rows[0]).toJson(), QJsonDocument(rows[1]).toJson());
        }
    }

    void writesCountWhatTheyMatch() {
        QVERIFY(insert(*m_db, "x"));
        const QString same = "UPDATE rizhi SET `info` = 'x' WHERE (`info` = 'x');";
        QCOMPARE(m_db->run(same).affected, 1);
        QCOMPARE(m_db->run("UPDATE rizhi SET `info` = 'x' WHERE (`info` = 'X');").affected, 0); // case counts
    }

    void transactionsRollBack() {
        QVERIFY(!m_db->transaction([this] { return insert(*m_db, "a") && false; }));
        QVERIFY(m_db->transaction([this] { return insert(*m_db, "b"); }));
        QCOMPARE(m_db->run("SELECT * FROM rizhi").rows.size(), 1);
    }

    void lostServerComesBack() {
        const auto worker = m_db->forThread();
        int errors = 0;
        connect(m_db.get(), &sqlite::error, this, [&] { ++errors; });
        m_server.kill();
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression("^mysql lost "));
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression("^mysql lost "));
        for (int i = 0; i < 50; ++i) {
            QVERIFY(!insert(*m_db, "x"));
            QVERIFY(!insert(*worker, "x"));
        }
        QCOMPARE(errors, 1); // an outage is told once
        QVERIFY(m_server.start());
        QTest::ignoreMessage(QtInfoMsg, QRegularExpression("^mysql back .* statements failed: \\d{2,}"));
        QVERIFY(waitFor([this] { return insert(*m_db, "main"); }, std::chrono::seconds(40)));
        QVERIFY(waitFor([&] { return insert(*worker, "worker"); }, std::chrono::seconds(40)));
        QVERIFY(m_db->run("INSERT INTO `task` (`len`) VALUES ('')").ok); // the session is set up again
        disconnect(m_db.get(), &sqlite::error, this, nullptr);
    }

    // A server that has dropped an idle connection costs nobody a failed request.
    void killedConnectionIsOpenedAtOnce() {
        const int id = m_db->run("SELECT CONNECTION_ID() AS id").integer(0, "id");
        m_server.sql(QString("KILL %1").arg(id));
        QTest::qWait(std::chrono::milliseconds(SqlConnection::TrustedIdle).count() + 100);
        QVERIFY(insert(*m_db, QString::fromUtf8("又")));
        QCOMPARE(m_db->run("SELECT `info` FROM rizhi").text(0, "info"), QString::fromUtf8("又"));
        QVERIFY(m_db->run("SELECT CONNECTION_ID() AS id").integer(0, "id") != id);
    }

    // What was written before the connection broke is rolled back by the server: nothing that follows in
    // the same transaction may be written alone.
    void transactionEndsWithItsConnection() {
        const bool committed = m_db->transaction([this] {
            const bool first = insert(*m_db, "first");
            m_server.sql(QString("KILL %1").arg(m_db->run("SELECT CONNECTION_ID() AS id").integer(0, "id")));
            insert(*m_db, "second");
            insert(*m_db, "third");
            return first;
        });
        QVERIFY(!committed);
        QVERIFY(waitFor([this] { return m_db->run("SELECT 1").ok; }));
        QCOMPARE(m_db->run("SELECT * FROM rizhi").rows.size(), 0);
    }

    void silentServerHoldsNobodyLong() {
        m_server.suspend();
        QElapsedTimer clock;
        QVERIFY(waitFor([&] { // the last thread of the server may still be on its way to stop
            clock.start();
            return !m_db->run("SELECT 1").ok;
        }));
        QVERIFY2(clock.elapsed() < 10'000, qPrintable(QString::number(clock.elapsed())));
        // From then on no statement of the main loop waits until the server is reachable.
        clock.start();
        QVERIFY(!m_db->run("SELECT 1").ok);
        QVERIFY(clock.elapsed() < 500);
        m_server.resume();
        QVERIFY(waitFor([this] { return m_db->run("SELECT 1").ok; }, std::chrono::seconds(40)));
    }

private:
    std::unique_ptr<sqlite> open() const {
        auto db = std::make_unique<sqlite>(m_access.host, m_access.port, m_access.user, m_access.password,
                                           m_access.name, 1);
        db->init();
        return db;
    }
    static bool insert(sqlite& db, const QString& info) {
        return db.run("INSERT INTO `rizhi` (`info`) VALUES ('@info');", {{"@info", info}}).ok;
    }
    MariaDb m_server;
    DatabaseAccess m_access;
    std::unique_ptr<sqlite> m_db;
};

int main(int argc, char** argv) {
    return runTest<MysqlTest>(argc, argv);
}
#include "mysql_test.moc"
