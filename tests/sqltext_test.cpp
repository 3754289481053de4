#include "core/sqlscript.h"
#include "core/sqltext.h"
#include "support/table.h"
#include "support/testmain.h"

Q_DECLARE_METATYPE(SqlArgs)

static SqlArg arg(const char* name, const char* text) {
    return {QLatin1String(name), QString::fromUtf8(text)};
}

class SqlTextTest : public QObject {
    Q_OBJECT
private slots:
    void fills_data() {
        const Table<QString, SqlArgs, QString> row{"statement", "args", "expected"};
        const QString ids = QStringLiteral("@ids");
        row("longest placeholder first", "('@userid', '@userid_seed')",
            {SqlArg("@userid", 7), arg("@userid_seed", "7ab")}, "('7', '7ab')");
        row("a value is never searched", "('@a', '@b')", {arg("@a", "@b"), arg("@b", "x")}, "('@b', 'x')");
        row("a value's tail joins no placeholder", "('@a@b')", {arg("@a", "@"), arg("@b", "x")}, "('@x')");
        row("every occurrence", "@n,'@n',@n", {SqlArg("@n", -3)}, "-3,'-3',-3");
        row("case counts", "'@Name'", {arg("@Name", "x"), arg("@name", "y")}, "'x'");
        row("dollar placeholders", "('$user_id', '$name')", {SqlArg("$user_id", 1), arg("$name", "a")},
            "('1', 'a')");
        row("a marker without a sign", " `len` = 'DQQQlen' ,", {arg("DQQQlen", "30")}, " `len` = '30' ,");
        row("integers outside of quotes", "in ( @ids )", {SqlArg(ids, QList<qint64>{1, 22})}, "in ( 1,22 )");
        row("no integers outside of quotes", "in ( @ids )", {SqlArg(ids, QList<qint64>{})}, "in ( NULL )");
        row("no integers in quotes", "'@ids'", {SqlArg(ids, QList<qint64>{})}, "''");
        row("serials", "in  ( '@insn' )", {SqlArg("@insn", QStringList{"a1", "b2"})}, "in  ( 'a1', 'b2' )");
        row("other text in double quotes", "date(\"now\",\"localtime\") '@a'", {arg("@a", "é🔔\"`;--")},
            "date(\"now\",\"localtime\") 'é🔔\"`;--'");
        row("doubled quote in the template", "'it''s @a'", {arg("@a", "x")}, "'it''s x'");
    }

    void fills() {
        QFETCH(QString, statement);
        QFETCH(SqlArgs, args);
        const SqlText filled = fillSql(statement, args, SqlDialect::Sqlite);
        QVERIFY2(filled.ok, qPrintable(filled.error));
        QTEST(filled.sql, "expected");
    }

    void refuses_data() {
        QTest::addColumn<QString>("statement");
        QTest::addColumn<SqlArgs>("args");
        QTest::addColumn<bool>("onSqlite"); // MySQL refuses every row
        const auto row = [](const char* tag, const char* statement, const SqlArgs& args,
                            bool onSqlite = true) {
            QTest::newRow(tag) << QString::fromUtf8(statement) << args << onSqlite;
        };
        row("quote", "'@a'", {arg("@a", "x' or '1'='1")});
        row("backslash", "'@a'", {arg("@a", "x\\")}, false);
        row("NUL", "'@a'", {SqlArg("@a", QString(QChar(u'\0')))});
        row("text outside of quotes", "where id = @a", {arg("@a", "1 or 1")});
        row("text in a name", "select `@a`", {arg("@a", "x")});
        row("text in double quotes", "\"@a\"", {arg("@a", "x")});
        row("text behind a doubled quote", "'a''' @a", {arg("@a", "x")});
        row("placeholder without a value", "'@userid'", {arg("@useridx", "x")});
        row("serials outside of quotes", "in (@insn)", {SqlArg("@insn", QStringList{"a1"})});
        for (const char* serial : {"", "a b", "a'b", "é"})
            row(serial, "in ('@insn')", {SqlArg("@insn", QStringList{"a1", QString::fromUtf8(serial)})});
    }

    void refuses() {
        QFETCH(QString, statement);
        QFETCH(SqlArgs, args);
        QFETCH(bool, onSqlite);
        QCOMPARE(fillSql(statement, args, SqlDialect::Sqlite).ok, !onSqlite);
        QVERIFY(!fillSql(statement, args, SqlDialect::Mysql).ok);
    }

    void takesApart_data() {
        const Table<QString, QString, QStringList> row{"statement", "shape", "values"};
        row("values", "UPDATE `t` SET `a` = '7', `b` = `b`+'' WHERE (`c` = 'x''?' ) ;",
            "UPDATE `t` SET `a` = ?, `b` = `b`+? WHERE (`c` = ? ) ;", {"7", "", "x'?"});
        row("a word right behind", "SET`a` = '7'WHERE b", "SET`a` = ? WHERE b", {"7"});
        row("none", "UPDATE `a'b` SET c = date(\"it's\")", "UPDATE `a'b` SET c = date(\"it's\")", {});
        for (const char* own :
             {"x = ?", "x = :a", "x = @a", "x = $a", "x -- '", "x /* ' */", "x = 'open", "`x"})
            row(own, own, {}, {}); // not a statement that can be taken apart
    }

    void takesApart() {
        QFETCH(QString, statement);
        const auto shape = sqlShape(statement);
        QTEST(shape ? shape->text : QString(), "shape");
        QTEST(shape ? shape->values : QStringList(), "values");
    }

    void splitsScripts_data() {
        const Table<QString, QStringList> row{"script", "expected"};
        row("empty", " ;; -- only\n", {});
        row("no last semicolon", "a;b", {"a", "b"});
        row("quotes", "x ';' \";\" `;` 'it'';s';y", {"x ';' \";\" `;` 'it'';s'", "y"});
        row("comments", "-- a;\nx /* ; */ y;/*/;*/z", {"x   y", "z"});
        row("trigger", "CREATE TRIGGER t BEGIN u; v; END;w", {"CREATE TRIGGER t BEGIN u; v; END", "w"});
    }

    void splitsScripts() {
        QFETCH(QString, script);
        QTEST(splitSqlScript(script, SqlDialect::Sqlite), "expected");
    }
};

int main(int argc, char** argv) {
    return runTest<SqlTextTest>(argc, argv);
}
#include "sqltext_test.moc"
