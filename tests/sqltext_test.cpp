#include "core/sql/sqlscript.h"
#include "core/sql/sqltext.h"
#include "support/table.h"
#include "support/testmain.h"

Q_DECLARE_METATYPE(SqlArgs)

static SqlArg arg(const char* name, const char* text) {
    return {QLatin1String(name), QString::fromUtf8(text)};
}

// Blanks count only between words.
static QString withoutBlanks(const QString& text) {
    return text.simplified().replace("? ,", "?,").replace("? )", "?)");
}

class SqlTextTest : public QObject {
    Q_OBJECT
private slots:
    void binds_data() {
        const Table<QString, SqlArgs, QString, QVariantList, QString> row{"statement", "args", "text",
                                                                          "values", "line"};
        const QString ids = QStringLiteral("@ids");
        row("longest placeholder first", "('@userid', '@userid_seed')",
            {SqlArg("@userid", 7), arg("@userid_seed", "7ab")}, "(?, ?)", {"7", "7ab"}, "('7', '7ab')");
        row("a value is never searched", "('@a', '@b')", {arg("@a", "@b"), arg("@b", "x")}, "(?, ?)",
            {"@b", "x"}, "('@b', 'x')");
        row("two in one literal, with text", "'<@a@b>'", {arg("@a", "@"), arg("@b", "x")}, "?", {"<@x>"},
            "'<@x>'");
        row("every occurrence", "@n,'@n',@n", {SqlArg("@n", -3)}, "?,?,?", {-3, "-3", -3}, "-3,'-3',-3");
        row("case counts", "'@Name'", {arg("@Name", "x"), arg("@name", "y")}, "?", {"x"}, "'x'");
        row("dollar placeholders", "('$user_id', '$name')", {SqlArg("$user_id", 1), arg("$name", "a")},
            "(?, ?)", {"1", "a"}, "('1', 'a')");
        row("a marker without a sign", " `len` = 'DQQQlen' ,", {arg("DQQQlen", "30")}, "`len` = ? ,", {"30"},
            " `len` = '30' ,");
        row("a word right behind", "'@a'WHERE", {arg("@a", "")}, "? WHERE", {""}, "''WHERE");
        row("integers outside of quotes", "in ( @ids )", {SqlArg(ids, QList<qint64>{1, 22})}, "in ( ?, ? )",
            {1, 22}, "in ( 1,22 )");
        row("no integers outside of quotes", "in ( @ids )", {SqlArg(ids, QList<qint64>{})}, "in ( NULL )", {},
            "in ( NULL )");
        row("integers in quotes", "'@ids'", {SqlArg(ids, QList<qint64>{1, 2})}, "?", {"1,2"}, "'1,2'");
        row("serials", "in  ( '@insn' )", {SqlArg("@insn", QStringList{"a1", "b2"})}, "in ( ?, ? )",
            {"a1", "b2"}, "in  ( 'a1', 'b2' )");
        row("no serials", "( '@insn' )", {SqlArg("@insn", QStringList{})}, "( ? )", {""}, "( '' )");
        row("any text", "'@a'", {arg("@a", "it's \"é🔔\\`;--")}, "?", {"it's \"é🔔\\`;--"},
            "'it's \"é🔔\\`;--'");
        row("quotes of the template", "date(\"now\") 'it''s' 'it''s @a'", {arg("@a", "x")},
            "date(\"now\") 'it''s' ?", {"it's x"}, "date(\"now\") 'it''s' 'it''s x'");
    }

    void binds() {
        QFETCH(QString, statement);
        QFETCH(SqlArgs, args);
        QFETCH(QString, text);
        QFETCH(QVariantList, values);
        for (int time = 0; time < 2; ++time) { // compiled, then kept
            const BoundSql bound = bindSql(statement, args);
            QCOMPARE(bound.error, QString());
            QCOMPARE(withoutBlanks(bound.text), withoutBlanks(text));
            QCOMPARE(QVariantList(bound.values.toList()), values);
            QTEST(sqlLine(statement, args), "line");
        }
    }

    /// More than servers take as parameters stands in the text.
    void bindsLongLists() {
        QList<qint64> ids;
        QStringList serials;
        for (int i = 0; i < 40000; ++i) {
            ids += i;
            serials += QString::number(i);
        }
        const BoundSql bound = bindSql("@ids '@sns'", {SqlArg("@ids", ids), SqlArg("@sns", serials)});
        QVERIFY(bound.values.isEmpty() && bound.text.startsWith("0,1,") && bound.text.endsWith("', '39999'"));
    }

    void refuses_data() {
        const Table<QString, SqlArgs> row{"statement", "args"};
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
        QVERIFY(!bindSql(statement, args).error.isEmpty());
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
