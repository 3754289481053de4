#include "core/sql/migrations.h"
#include "core/sql/sqlite.h"
#include "support/testmain.h"

#include <future>
#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QRegularExpression>
#include <QTemporaryDir>

static std::unique_ptr<sqlite> open(int kind) {
    auto db = std::make_unique<sqlite>(QString(), 0, QString(), QString(), QString(), kind);
    db->init();
    return db;
}

class SqliteTest : public QObject {
    Q_OBJECT
private slots:
    void initTestCase() {
        QVERIFY(QDir::setCurrent(m_directory.path()));
        const auto db = open(3);
        QFile script(":/etc/ttys/sqlite3main.sql");
        QVERIFY(script.open(QIODevice::ReadOnly));
        m_script = QString::fromUtf8(script.readAll());
    }

    void init() {
        m_db = open(3);
        QVERIFY(m_db->get_is_aready());
        QVERIFY(m_db->runScript(m_script) >= 3);
    }

    void cleanup() { m_db.reset(); }

    void schemaScriptCanRunTwice() {
        m_db->get_rizhi(1, 2, 3, "x");
        QVERIFY(m_db->runScript(m_script) >= 3);
        QCOMPARE(count("rizhi"), 0);
        QCOMPARE(count("sbox_node where id = 1"), 1);
        QCOMPARE(count("swap_info where type = 'info'"), 1);
        QCOMPARE(count("xieyi_mod where id = 1"), 1);
        QVERIFY(QFile::exists(".Elvor.db"));
    }

    /// A database of the first version keeps its rows, and a copy of it is left.
    void olderDatabasesAreBroughtUpToDate() {
        const auto schema = [this] {
            return m_db
                ->run("SELECT name, type FROM sqlite_master WHERE name NOT LIKE 'sqlite_%' "
                      "ORDER BY name;")
                .rows;
        };
        const auto whole = schema();
        const int newest = m_db->run("SELECT version FROM schema_version;").integer(0, "version");
        const QRegularExpression made("CREATE TABLE IF NOT EXISTS `(\\w+)`");
        for (const QFileInfo& step : QDir(":/etc/ttys/migrations").entryInfoList({"*.sqlite.sql"})) {
            QFile file(step.filePath());
            QVERIFY(file.open(QIODevice::ReadOnly));
            for (auto table = made.globalMatch(file.readAll()); table.hasNext();)
                QVERIFY(m_db->exec("DROP TABLE " + table.next().captured(1)));
        }
        QVERIFY(m_db->runScript("DROP TABLE schema_version; DROP INDEX taskfile_list;"
                                "CREATE INDEX taskfile_task ON taskfile (taskid, fileid);"
                                "INSERT INTO taskfile (taskid, fileid) VALUES (1, 5), (1, 3);") >= 0);
        QFile::setPermissions(".Elvor.db", QFile::ReadOwner | QFile::WriteOwner);
        QString why;
        for (int time = 0; time < 2; ++time)
            QVERIFY2(migrateSchema(*m_db, why), qPrintable(why));
        QCOMPARE(newestSchemaVersion(), newest);
        QCOMPARE(m_db->run("SELECT MAX(version) AS v FROM schema_version;").integer(0, "v"), newest);
        QCOMPARE(schema(), whole); // by either road the same
        QCOMPARE(count("taskfile"), 2);
        QVERIFY(QFileInfo(".Elvor.db.v1").size() > 0);
        QCOMPARE(QFile::permissions(".Elvor.db.v1") & (QFile::ReadGroup | QFile::ReadOther),
                 QFile::Permissions());
    }

    void newerDatabasesAreLeftAlone() {
        QVERIFY(m_db->exec("INSERT INTO schema_version (version) VALUES (1000)"));
        QString why;
        QVERIFY(!migrateSchema(*m_db, why));
        QVERIFY(why.contains("1000"));
        QVERIFY(!m_db->run("SELECT id FROM task").ok && !m_db->exec("DELETE FROM task"));
        QVERIFY(!m_db->forThread()->run("SELECT id FROM task").ok);
    }

    void rowsComeBackTyped() {
        const QString name = QStringLiteral("三年级 🔔");
        const SqlResult inserted =
            m_db->run("INSERT INTO `task` (`userid`, `task_name`) VALUES ('@u', '@name')",
                      {{"@u", 5}, {"@name", name}});
        QVERIFY2(inserted.ok, qPrintable(inserted.error));
        QCOMPARE(inserted.affected, 1);
        QCOMPARE(inserted.lastId, 1);
        const SqlResult rows = m_db->run("SELECT id, userid, task_name, fileids FROM task");
        QCOMPARE(
            QJsonDocument(rows.objects()).toJson(QJsonDocument::Compact),
            QStringLiteral(R"([{"fileids":null,"id":1,"task_name":"%1","userid":5}])").arg(name).toUtf8());
        QCOMPARE(rows.text(0, "task_name"), name);
        QVERIFY(!rows.value(0, "nothing").isValid());
        QVERIFY(!rows.value(1, "id").isValid());
        QVERIFY(!m_db->run("SELECT nothing FROM task").ok);
    }

    void textNumbersCompare() {
        QVERIFY(m_db->exec("INSERT INTO taskpop (`status`, `kind`) VALUES ('11', 2)"));
        QVERIFY(m_db->exec("INSERT INTO task (`start_time`, `len`) VALUES ('3600', '')"));
        QCOMPARE(count("taskpop where `status` = '11' and kind = '2' and `status` != 0"), 1);
        QCOMPARE(count("task where start_time = '3600' and enable != 0"), 1);
        QCOMPARE(count("task where start_time = '03600'"), 1);
    }

    void anyTextIsAValue() {
        const QString text = "x'); DELETE FROM sbox_node; --\\";
        QVERIFY(m_db->run("INSERT INTO rizhi (`info`) VALUES ('@info')", {{"@info", text}}).ok);
        QCOMPARE(m_db->run("SELECT info FROM rizhi WHERE info = '@info'", {{"@info", text}}).text(0, "info"),
                 text);
        const SqlResult refused = m_db->run("DELETE FROM sbox_node WHERE id = @id", {{"@id", QString("1")}});
        QVERIFY(!refused.ok && refused.refused);
        QCOMPARE(count("sbox_node"), 1);
    }

    void transactions() {
        const auto add = [this] {
            return m_db->exec("INSERT INTO fei (`fei`) VALUES ('1')");
        };
        QVERIFY(m_db->transaction([&] { return add() && add(); }));
        QVERIFY(!m_db->transaction([&] { return add() && false; }));
        QVERIFY(m_db->transaction([] { return true; }));
        QCOMPARE(count("fei"), 2);
    }

    /// Statements that are kept prepared do what their texts do, whatever ran before.
    void statementsAlike() {
        QVERIFY(
            m_db->exec("INSERT INTO sbox_device_info (`device_seed`, `vol`) VALUES ('a1', 1), ('b2', 2)"));
        const auto add = [this](int more, const char* sn) {
            return m_db
                ->run("UPDATE `sbox_device_info` SET `vol` = `vol`+'@vol'WHERE (`device_seed` = '@sn' ) ;",
                      {{"@vol", more}, {"@sn", QString(sn)}})
                .ok;
        };
        QVERIFY(m_db->transaction([&] { return add(10, "a1") && add(20, "b2") && add(30, "b2"); }));
        QVERIFY(
            m_db->run("INSERT INTO task (`start_time`, `len`) VALUES ('60', '@len')", {{"@len", QString()}})
                .ok);
        QCOMPARE(count("task where len = ''"), 1); // empty, not NULL
        QVERIFY(!m_db->run("UPDATE nowhere SET a = '@a'", {{"@a", 1}}).ok);
        QVERIFY(!m_db->transaction([&] { return add(1, "a1") && false; }));
        QVERIFY(add(0, "none"));
        QCOMPARE(count("sbox_device_info where vol = 11 and device_seed = 'a1'"), 1);
        QCOMPARE(count("sbox_device_info where vol = 52 and device_seed = 'b2'"), 1);
    }

    void failingScriptLeavesNothing() {
        QCOMPARE(m_db->runScript("DELETE FROM sbox_node; CREATE TABLE t (a); nonsense;"), -1);
        QCOMPARE(count("sbox_node"), 1);
        QVERIFY(!m_db->exec("SELECT * FROM t"));
    }

    void deviceTimesFollowChanges() {
        QVERIFY(m_db->exec("INSERT INTO sbox_device_info (`device_seed`, `updatetime`, `changetime`) "
                           "VALUES ('ab', '2000-01-01 00:00:00', '2000-01-01 00:00:00')"));
        QVERIFY(!m_db->exec("INSERT INTO sbox_device_info (`device_seed`) VALUES ('ab')"));
        const SqlResult changed =
            m_db->run("UPDATE `sbox_device_info` SET `vol` = '9' WHERE (`device_seed` = 'ab' ) ;");
        QCOMPARE(changed.affected, 1);
        QCOMPARE(count("sbox_device_info where updatetime > '2001' and changetime > '2001'"), 1);
    }

    void otherThreadsHaveTheirOwnConnection() {
        m_db->site.preurl = QStringLiteral("http://x/");
        QVERIFY(m_db->transaction([this] {
            // A reader in another thread is not held up by the open write transaction.
            const bool written = m_db->exec("INSERT INTO fei (`fei`) VALUES ('1')");
            auto reader = std::async(std::launch::async, [this] {
                const auto own = m_db->forThread();
                return own->site.preurl + QString::number(own->run("SELECT id FROM fei").rows.size());
            });
            return written && reader.get() == QStringLiteral("http://x/0");
        }));
        constexpr int Threads = 4;
        constexpr int RowsEach = 50;
        std::vector<std::future<int>> writers;
        writers.reserve(Threads);
        for (int i = 0; i < Threads; ++i) {
            writers.push_back(std::async(std::launch::async, [this] {
                const auto own = m_db->forThread();
                int written = 0;
                for (int row = 0; row < RowsEach; ++row)
                    written += own->run("INSERT INTO fei (`fei`) VALUES ('2')").affected;
                return written;
            }));
        }
        for (auto& writer : writers)
            QCOMPARE(writer.get(), RowsEach);
        QCOMPARE(count("fei"), 1 + Threads * RowsEach);
    }

private:
    int count(const char* table) {
        return m_db->run(QStringLiteral("SELECT count(*) AS n FROM ") + QLatin1String(table)).integer(0, "n");
    }
    QTemporaryDir m_directory;
    std::unique_ptr<sqlite> m_db;
    QString m_script;
};

int main(int argc, char** argv) {
    return runTest<SqliteTest>(argc, argv);
}
#include "sqlite_test.moc"
