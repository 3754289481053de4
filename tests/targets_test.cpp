#include "core/sql/sqlite.h"
#include "service/audit.h"
#include "service/groups.h"
#include "service/speakers.h"
#include "service/visibility.h"
#include "support/table.h"
#include "support/testmain.h"

#include <QTemporaryDir>

// Speakers 1 to 9 are of account 1, 11 to 19 of account 2, 21 of account 3; a serial ends in its number.
// Groups 1 to 6 are of account 1 and hold speakers and groups as initTestCase() says, 7 is of account 2, 8 of
// the administrator, who is account 9. Account 4 is a sub-account of 1. Account 2 views group 5 and operates
// 8, account 3 operates 2 and 6.

static QString serialOf(int number) {
    return QString("%1").arg(number, 32, 10, QChar('0'));
}

static QString numbers(const QStringList& serials) {
    QStringList found;
    for (const QString& serial : serials)
        found += QString::number(serial.right(8).toInt());
    std::sort(found.begin(), found.end(), [](auto& a, auto& b) { return a.toInt() < b.toInt(); });
    return found.join(' ');
}

Q_DECLARE_METATYPE(Caller)
Q_DECLARE_METATYPE(Targets)

class TargetsTest : public QObject {
    Q_OBJECT
private slots:
    void initTestCase() {
        QVERIFY(QDir::setCurrent(m_directory.path()));
        m_db = std::make_unique<sqlite>(QString(), 0, QString(), QString(), QString(), 3);
        m_db->init();
        QFile script(":/etc/ttys/sqlite3main.sql");
        QVERIFY(script.open(QIODevice::ReadOnly));
        QVERIFY(m_db->runScript(QString::fromUtf8(script.readAll())) >= 3);
        for (const auto& [account, level] : {std::pair(1, 0), {2, 0}, {3, 0}, {4, 0}, {9, 1}})
            run(QString("INSERT INTO sbox_users (id, user_name, user_level) VALUES (%1, 'u%1', %2)")
                    .arg(account)
                    .arg(level));
        for (const int n : {1, 2, 3, 4, 5, 6, 11, 12, 21})
            run(QString("INSERT INTO sbox_device_info (id, user_id, device_name, device_seed) "
                        "VALUES (%1, %2, 'Höf %1', '%3')")
                    .arg(n)
                    .arg(n / 10 + 1)
                    .arg(serialOf(n)));
        struct Holds {
            int owner;
            QList<int> speakers;
            QList<qint64> groups;
        };
        const QList<Holds> groups{{1, {1, 2}, {}},  {1, {2, 3}, {1}}, {1, {}, {2}},      {1, {}, {}},
                                  {1, {4}, {3, 2}}, {1, {5, 11}, {}}, {2, {11, 12}, {}}, {9, {1, 21}, {7}}};
        for (const Holds& group : groups) {
            QStringList serials;
            for (const int n : group.speakers)
                serials += serialOf(n);
            qint64 id = 0;
            QCOMPARE(addGroup(*m_db, group.owner, {QString("g"), serials, group.groups}, id),
                     GroupOutcome::Done);
        }
        run("INSERT INTO group_group (gid, member) VALUES (6, 7)"); // another account's, as if once shared
        run("INSERT INTO groupgrant (account, gid, role) VALUES (2, 5, 1), (3, 2, 2), (3, 6, 2), (2, 8, 2)");
    }

    void resolved_data() {
        const Table<Caller, Targets, QString> row{"caller", "targets", "speakers"};
        row("one", owner(1), speakers({1}), "1");
        row("all", owner(1), all(), "1 2 3 4 5 6");
        row("each once", owner(1), {false, {serialOf(2), serialOf(2)}, {1, 2}}, "1 2 3");
        row("nested", owner(1), inGroups({3}), "1 2 3");
        row("by two ways", owner(1), inGroups({5}), "1 2 3 4");
        row("empty group", owner(1), inGroups({4}), "");
        row("a member of another account's", owner(1), inGroups({6}), "5");
        row("gone", owner(1), {false, {serialOf(99)}, {77}}, "");
        row("another's", owner(1), {false, {serialOf(11)}, {7}}, "");
        row("viewer", owner(2), inGroups({5}), "");
        row("operator, an administrator's group", owner(2), inGroups({8}), "1 11 12 21");
        row("operator", owner(3), all(), "1 2 3 5 21");
        row("operator of a nested group only", owner(3), inGroups({1}), "1 2");
        row("operator, what its giver does not own", owner(3), {false, {serialOf(11)}, {7}}, "");
        row("sub-account", sub(), all(), "2 3");
        row("sub-account, outside its mask", sub(), speakers({1, 3}), "3");
        row("administrator", admin(), all(), "1 2 3 4 5 6 11 12 21");
    }
    void resolved() {
        QFETCH(Caller, caller);
        QFETCH(Targets, targets);
        const auto serials = resolve(*m_db, reachable(*m_db, caller), targets);
        QVERIFY(serials);
        QTEST(numbers(*serials), "speakers");
    }

    void faults_data() {
        const Table<Caller, Targets, QString> row{"caller", "targets", "faults"};
        row("none", owner(1), {false, {serialOf(1)}, {3}}, "");
        row("unknown and another's", owner(1), {false, {serialOf(1), serialOf(11), serialOf(99)}, {1, 7, 77}},
            "/speakers/1 /speakers/2 /groups/1 /groups/2");
        row("nobody", owner(1), {}, "(whole)");
        row("nobody in it", owner(1), inGroups({4}), "(whole)");
        row("nobody of all", owner(7), all(), "(whole)");
        row("only seen", owner(2), inGroups({5}), "/groups/0");
    }
    void faults() {
        QFETCH(Caller, caller);
        QFETCH(Targets, targets);
        const auto found = faultsOf(*m_db, reachable(*m_db, caller), targets);
        QVERIFY(found);
        QStringList pointers;
        for (const TargetFault& fault : *found)
            pointers += fault.pointer.isEmpty() ? "(whole)" : fault.pointer;
        QTEST(pointers.join(' '), "faults");
    }

    void seen_data() {
        const Table<Caller, QString, QString> row{"caller", "speakers", "groups"};
        row("owner", owner(1), "1 2 3 4 5 6", "1 2 3 4 5 6");
        row("viewer and operator", owner(2), "1 2 3 4 11 12 21", "1 2 3 5 7 8");
        row("sub-account", sub(), "2 3", "");
        row("nobody", owner(7), "", "");
    }
    void seen() {
        QFETCH(Caller, caller);
        const Reachable scope = visible(*m_db, caller);
        QStringList serials;
        const auto speakers = listSpeakers(*m_db, {scope.speakers}, 100);
        QVERIFY(speakers);
        for (const Speaker& speaker : *speakers)
            serials += speaker.serial;
        QTEST(numbers(serials), "speakers");
        GroupQuery query;
        query.scope = scope.groups;
        QStringList groups;
        const auto listed = listGroups(*m_db, query, 100);
        QVERIFY(listed);
        for (const Group& group : *listed)
            groups += QString::number(group.id);
        QTEST(groups.join(' '), "groups");
    }

    void circles_data() {
        const Table<int, QList<qint64>, bool> row{"group", "holds", "isCircle"};
        row("itself", 1, {1}, true);
        row("what holds it", 1, {2}, true);
        row("deeper", 1, {5}, true);
        row("beside", 4, {1, 2}, false);
    }
    void circles() {
        QFETCH(int, group);
        QFETCH(QList<qint64>, holds);
        const auto outcome = changeGroup(*m_db, group, {std::nullopt, std::nullopt, holds});
        QFETCH(bool, isCircle);
        QCOMPARE(outcome, isCircle ? GroupOutcome::Circle : GroupOutcome::Done);
        QCOMPARE(changeGroup(*m_db, group, {std::nullopt, std::nullopt, QList<qint64>()}),
                 GroupOutcome::Done);
    }

    void found_data() {
        const Table<QString, QString> row{"text", "speakers"};
        row("name, another case", "HÖF 1", "1 11 12");
        row("serial", "021", "21");
        row("ascii", "öf 2", "2 21");
        row("no pattern", "%", "");
    }
    void found() {
        QFETCH(QString, text);
        QStringList serials;
        const auto speakers = listSpeakers(*m_db, {Scope{true}, std::nullopt, text}, 100);
        QVERIFY(speakers);
        for (const Speaker& speaker : *speakers)
            serials += speaker.serial;
        QTEST(numbers(serials), "speakers");
    }

    /// The oldest lines go, some at a time; what is younger stays.
    void theAuditLogForgets() {
        for (qint64 at = 1; at <= 1200; ++at)
            writeAudit(*m_db, {at, 1, "::1", "POST /groups", "/groups/1", {}});
        int turns = 0;
        while (forgetAudit(*m_db, 1101) && turns < 10)
            ++turns;
        QVERIFY(turns >= 2 && turns < 10);
        const SqlResult left = m_db->run("SELECT MIN(`at`) AS `first`, COUNT(*) AS `n` FROM `audit`", {});
        QCOMPARE(left.integer(0, "first"), 1101);
        QCOMPARE(left.integer(0, "n"), 100);
    }

private:
    void run(const QString& statement) { QVERIFY2(m_db->run(statement).ok, qPrintable(statement)); }
    static Caller owner(qint64 account) {
        Caller caller;
        caller.account = account;
        return caller;
    }
    static Caller sub() {
        Caller caller = owner(4);
        caller.master = 1;
        caller.mask = "2,3,11";
        return caller;
    }
    static Caller admin() {
        Caller caller = owner(9);
        caller.isAdmin = true;
        return caller;
    }
    static Targets all() { return {true, {}, {}}; }
    static Targets inGroups(const QList<qint64>& groups) { return {false, {}, groups}; }
    static Targets speakers(const QList<int>& numbers) {
        Targets targets;
        for (const int n : numbers)
            targets.speakers += serialOf(n);
        return targets;
    }

    QTemporaryDir m_directory;
    std::unique_ptr<sqlite> m_db;
};

int main(int argc, char** argv) {
    return runTest<TargetsTest>(argc, argv);
}
#include "targets_test.moc"
