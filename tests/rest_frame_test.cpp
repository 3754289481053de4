#include "rest/fields.h"
#include "rest/page.h"
#include "rest/restroutes.h"
#include "rest/timestamp.h"
#include "service/loginbrake.h"
#include "service/passwords.h"
#include "support/table.h"
#include "support/testmain.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>

using namespace std::chrono_literals;

/// What the frame of the interface v1 makes of single values, without a service.
class RestFrameTest : public QObject {
    Q_OBJECT
private slots:
    void initTestCase() { qputenv("TZ", "Europe/Berlin"); }

    void fields_data() {
        const Table<QByteArray, QString> row{"body", "errors"};
        row("fit", "{\"name\":\"O'H\\\"\\\\ä😀\",\"n\":3,\"ids\":[1,2,1],\"inner\":{\"a\":true}}", "");
        row("unknown, escaped", R"({"name":"x","a/b~c":1})", "/a~1b~0c is unknown here");
        row("unknown within", R"({"name":"x","inner":{"b":1}})", "/inner/b is unknown here");
        row("missing", "{}", "/name is missing");
        row("null", R"({"name":null})", "/name must not be null");
        row("empty", R"({"name":""})", "/name must be a text of 1 to 4 characters");
        row("pairs count once", R"({"name":"😀😀😀😀"})", "");
        row("long", R"({"name":"12345"})", "/name must be a text of 1 to 4 characters");
        row("line break", "{\"name\":\"a\\nb\"}", "/name must not hold control characters");
        row("half a pair", "{\"name\":\"\\ud83d\"}", "/name must not hold control characters");
        row("number as text", R"({"name":"x","n":"3"})", "/n must be a whole number from 1 to 5");
        row("fraction", R"({"name":"x","n":2.5})", "/n must be a whole number from 1 to 5");
        row("huge", R"({"name":"x","n":1e300})", "/n must be a whole number from 1 to 5");
        row("entries", R"({"name":"x","ids":[0,"1",{}]})",
            "/ids/0 must be an object's number;/ids/1 must be an object's number;/ids/2 must be an object's "
            "number");
        row("no list", R"({"name":"x","ids":1})", "/ids must be a list of 0 to 3 entries");
    }
    void fields() {
        QFETCH(QByteArray, body);
        FieldErrors errors;
        const Fields fields(QJsonDocument::fromJson(body).object(), errors);
        // Only the first case is long; the others keep the limit small.
        fields.text("name", 1, body.contains("O'H") ? 10 : 4);
        fields.integer("n", 1, 5);
        const auto ids = fields.ids("ids", 3);
        if (const auto inner = fields.object("inner"))
            inner->flag("a");
        fields.need({"name"});
        fields.refuseUnknown();
        QStringList told;
        for (const FieldError& error : errors)
            told += error.pointer + " " + error.detail;
        QTEST(told.join(";"), "errors");
        if (ids && errors.empty())
            QCOMPARE(*ids, (QList<qint64>{1, 2}));
    }

    void timestamps_data() {
        const Table<QString, qint64> row{"text", "ms"};
        row("with milliseconds", "2026-07-01T12:00:00.250+02:00", 1782900000250);
        row("zulu", "2026-07-01T10:00:00Z", 1782900000000);
        row("local", "2026-07-01T12:00:00", -1);
        row("no such day", "2026-02-30T12:00:00Z", -1);
        row("no such hour", "2026-02-20T24:00:00Z", -1);
        row("rubbish", "yesterday", -1);
    }
    void timestamps() {
        QFETCH(QString, text);
        const auto ms = fromTimestamp(text);
        QTEST(ms.value_or(-1), "ms");
        if (ms)
            QCOMPARE(fromTimestamp(timestamp(*ms)), ms);
    }

    void cursors() {
        for (const char* key : {"7", "a/b +ä"})
            QCOMPARE(keyOf(cursorOf(key)), std::optional<QString>(key));
        for (const char* bad : {"", "7", "!!", "MQ", "Mjc", "MTc="})
            QVERIFY2(!keyOf(bad), bad);
    }

    /// Each row is found by its own path, and no two are the same.
    void everyRouteIsFound() {
        QStringList seen;
        for (const RestRoute& route : RestRoutes::all().rows()) {
            const QByteArray path = "/api/v1" + QByteArray(route.path).replace('{', "").replace('}', "");
            const auto match = RestRoutes::all().find(route.method, path);
            QVERIFY2(match.route == &route, route.path);
            seen += QString("%1 %2").arg(route.method, route.path);
        }
        QCOMPARE(seen.removeDuplicates(), 0);
        QVERIFY(RestRoutes::all().find("GET", "/api/v1/me/").allowed.isEmpty());
        QVERIFY(RestRoutes::all().find("GET", "/api/v2/me").allowed.isEmpty());
        QVERIFY(RestRoutes::all().find("HEAD", "/api/v1/me").route ==
                RestRoutes::all().find("GET", "/api/v1/me").route);
    }

    /// The document tells every route with what it takes, and no other.
    void theDocumentIsTheTable() {
        QFile file(SOURCE_DIR "/docs/openapi.json");
        QVERIFY(file.open(QIODevice::ReadOnly));
        const QJsonObject document = QJsonDocument::fromJson(file.readAll()).object();
        const QJsonObject paths = document["paths"].toObject();
        QStringList told;
        for (auto path = paths.begin(); path != paths.end(); ++path) {
            const QJsonObject methods = path->toObject();
            for (auto method = methods.begin(); method != methods.end(); ++method)
                told += describe(method.key().toUpper(), path.key(), method->toObject());
        }
        QStringList wanted;
        for (const RestRoute& route : RestRoutes::all().rows())
            wanted += describe(route);
        told.sort();
        wanted.sort();
        QCOMPARE(told.join('\n'), wanted.join('\n'));
    }

    void passwords() {
        Passwords passwords(true);
        const QString word = QString(150, QChar(0x94C3)) + "'\\"; // more bytes than crypt() takes
        const QString stored = passwords.hash(word);
        QVERIFY(Passwords::isHash(stored) && stored != passwords.hash(word));
        QVERIFY(passwords.matches(word, stored) && passwords.matches(word, stored));
        QVERIFY(!passwords.matches(word + " ", stored) && !passwords.matches(stored, stored));
        QVERIFY(passwords.matches("plain", "plain") && !passwords.matches("plain", "plaiN"));
        QVERIFY(!passwords.matches("", "{crypt}$y$") && !passwords.matches("*0", "{crypt}$y$*0"));
        QCOMPARE(Passwords(false).asStored("plain"), QString("plain"));
    }

    /// Slowed: the pair alone, up to a minute, until it succeeds or is forgotten.
    void loginBrake() {
        LoginBrake brake;
        auto now = LoginBrake::Clock::now();
        for (const int seconds : {0, 0, 0, 0, 1, 2, 4, 8, 16, 32, 60, 60}) {
            brake.failed("ann", "::1", now);
            QCOMPARE(qint64(brake.wait("ann", "::1", now).count()), qint64(seconds));
            QCOMPARE(brake.wait("ann", "::2", now), 0s);
            QCOMPARE(brake.wait("bob", "::1", now), 0s);
            now += std::chrono::seconds(seconds);
            QCOMPARE(brake.wait("ann", "::1", now), 0s);
        }
        QVERIFY(brake.wait("ann", "::1", now - 1s) > 0s);
        brake.succeeded("ann", "::1");
        QCOMPARE(brake.wait("ann", "::1", now - 1s), 0s);
        for (int failure = 0; failure < 5; ++failure)
            brake.failed("eve", "::1", now);
        QVERIFY(brake.wait("eve", "::1", now) > 0s);
        for (std::size_t other = 0; other < LoginBrake::MaxKept; ++other)
            brake.failed(QString::number(other), "::1", now);
        QCOMPARE(brake.wait("eve", "::1", now), 0s); // the oldest had to make room
    }

private:
    static QString describe(const RestRoute& route) {
        QStringList query;
        for (const QByteArray& name : route.query)
            query += name;
        if (route.traits & Paged)
            query << "limit"
                  << "cursor";
        query.sort();
        return QString("%1 %2 (%3) %4%5")
            .arg(route.method, route.path, query.join(' '), route.takes == Takes::Nothing ? "" : "body ",
                 route.who == Who::Anybody ? "anybody" : "token");
    }
    static QString describe(const QString& method, const QString& path, const QJsonObject& operation) {
        QStringList query;
        for (const auto parameter : operation["parameters"].toArray()) {
            const QString component = parameter.toObject()["$ref"].toString().section('/', -1).toLower();
            if (component == "limit" || component == "cursor")
                query += component;
            else if (parameter.toObject()["in"] == "query")
                query += parameter.toObject()["name"].toString();
        }
        query.sort();
        const bool isOpen = operation.contains("security") && operation["security"].toArray().isEmpty();
        return QString("%1 %2 (%3) %4%5")
            .arg(method, path, query.join(' '), operation.contains("requestBody") ? "body " : "",
                 isOpen ? "anybody" : "token");
    }
};

int main(int argc, char** argv) {
    return runTest<RestFrameTest>(argc, argv);
}
#include "rest_frame_test.moc"
