#include "support/devicelink.h"
#include "support/table.h"
#include "support/testmain.h"
#include "tasks/alarms/alarmcast.h"
#include "tasks/alarms/mgfile.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QRegularExpression>

namespace {

/// A speaker's data connection that asks for the next chunk after each read.
class Puller {
public:
    Puller(DeviceLink& link, int n)
        : m_control(link.speaker(testSerial(n)))
        , m_data(link.attach(testSerial(n))) {
        QObject::connect(&m_timer, &QTimer::timeout, &m_timer, [this] {
            const int size = heard().size();
            if (size != std::exchange(m_seen, size))
                m_data->send("12345");
        });
        m_data->send("12345");
        m_timer.start(1);
    }
    QByteArray heard() const { return QByteArray(m_data->received()).replace("HELL", ""); }

private:
    std::unique_ptr<RawConnection> m_control, m_data;
    QTimer m_timer;
    int m_seen = 0;
};

QByteArray sound(char letter, int packets) {
    mg::Header header;
    header.ms = 20;
    QList<QByteArray> list;
    for (int i = 0; i < packets; ++i)
        list << QByteArray(100, letter);
    return mg::pack(header, list);
}

} // namespace

class AlarmcastTest : public QObject {
    Q_OBJECT
private slots:
    void initTestCase() {
        QVERIFY(QDir(m_directory.path()).mkpath("run/sub"));
        QVERIFY(!write("a.mg", sound('a', 50)).isEmpty());
        QVERIFY(!write("b.mg", sound('b', 10)).isEmpty());
        QVERIFY(!write("sub/c.mg", sound('c', 10)).isEmpty());
        QVERIFY(!write("half.mg", "half").isEmpty());
        QVERIFY(!write("../outside.mg", sound('x', 10)).isEmpty());
        QVERIFY(QFile::link(m_directory.filePath("outside.mg"), m_directory.filePath("run/leak.mg")));
        QVERIFY(QFile::link(m_directory.path(), m_directory.filePath("run/up")));
        QVERIFY(QFile::link("sub/c.mg", m_directory.filePath("run/inside.mg")));
        QVERIFY(QFile::link(m_directory.filePath("run"), m_directory.filePath("runlink")));
        QVERIFY(QDir(m_directory.path()).mkpath("runner"));
        QVERIFY(QFile::copy(m_directory.filePath("outside.mg"), m_directory.filePath("runner/x.mg")));
    }

    void init() {
        m_link = std::make_unique<DeviceLink>();
        m_cast = std::make_unique<Alarmcast>(&m_link->registry, m_directory.filePath("run"));
    }

    void cleanup() {
        m_cast.reset();
        m_link.reset();
    }

    void filesBelowTheDirectory_data() {
        const Table<QString, QString> row{"entry", "found"};
        row("plain", "a.mg", "run/a.mg");
        row("below", "sub/../sub//c.mg", "run/sub/c.mg");
        row("link that stays inside", "inside.mg", "run/sub/c.mg");
        row("absolute, inside", m_directory.filePath("run/a.mg"), "run/a.mg");
        row("through a link to it", m_directory.filePath("runlink/a.mg"), "run/a.mg");
        row("parent", "../outside.mg", "");
        row("absolute, outside", m_directory.filePath("outside.mg"), "");
        row("same prefix", "../runner/x.mg", "");
        row("link to outside", "leak.mg", "");
        row("directory link", "up/outside.mg", "");
        row("directory", "sub", "");
        row("itself", "", "");
        row("missing", "no.mg", "");
        row("device", "/dev/null", "");
    }

    void filesBelowTheDirectory() {
        QFETCH(QString, entry);
        QFETCH(QString, found);
        const QString expected =
            found.isEmpty() ? QString() : QFileInfo(m_directory.filePath(found)).canonicalFilePath();
        QCOMPARE(Alarmcast::fileBelow(m_directory.filePath("run"), entry), expected);
        QCOMPARE(Alarmcast::fileBelow(m_directory.filePath("runlink"), entry), expected);
        QCOMPARE(Alarmcast::fileBelow(m_directory.filePath("nowhere"), entry), QString());
    }

    void replies_data() {
        const Table<QByteArray, QString, int> row{"rest", "res", "casts"};
        row("plays", list({1}) + ",'filelist':['a.mg']", "WELL", 1);
        row("first file missing", list({1}) + ",'filelist':['no.mg','a.mg']", "WELL", 1);
        row("level as text", list({1}) + ",'filelist':['a.mg'],'level':'7'", "WELL", 1);
        row("offline speaker", list({1, 2}) + ",'filelist':['a.mg']", "unline", 1);
        row("unknown speaker", list({3, 1}) + ",'filelist':['a.mg']", "out_of_range", 1);
        row("nobody known", list({3}) + ",'filelist':['a.mg']", "out_of_range", 0);
        row("no targets", "'filelist':['a.mg']", "Data_error_7", 0);
        row("no files", list({1}), "ufile_error", 0);
        row("no such file", list({1}) + ",'filelist':['no.mg']", "ufile_error", 0);
        row("outside", list({1}) + ",'filelist':['../outside.mg']", "ufile_error", 0);
        row("no alarm file", list({1}) + ",'filelist':['half.mg']", "ufile_error", 0);
        row("not texts", list({1}) + ",'filelist':[7,null]", "ufile_error", 0);
        row("bad level", list({1}) + ",'filelist':['a.mg'],'level':-1", "Data_error_7", 0);
        row("level no number", list({1}) + ",'filelist':['a.mg'],'level':[1]", "Data_error_7", 0);
    }

    void replies() {
        QFETCH(QByteArray, rest);
        const auto speaker = m_link->speaker(testSerial(1));
        m_link->registry.addSession(testSerial(2).toHex(), &m_link->registry);
        const QJsonObject reply = ask("{'cmd':'PLAYMG'," + rest + '}');
        QTEST(reply["res"].toString(), "res");
        QVERIFY(reply["info"].isString());
        QTEST(m_cast->castCount(), "casts");
    }

    void everyByteInOrder() {
        Puller one(*m_link, 1), two(*m_link, 2);
        QCOMPARE(
            ask("{'cmd':'PLAYMG'," + list({1, 2}) + ",'filelist':['b.mg','leak.mg','inside.mg']}")["res"],
            "WELL");
        QTest::ignoreMessage(QtInfoMsg, QRegularExpression("^PLAYMG over.* begun on 2 speakers, lost 0$"));
        const QByteArray whole = QByteArray(1000, 'b') + QByteArray(1000, 'c');
        QVERIFY(waitFor(
            [&] { return one.heard().size() >= whole.size() && two.heard().size() >= whole.size(); }));
        QCOMPARE(one.heard(), whole);
        QCOMPARE(two.heard(), whole);
        QVERIFY(waitFor([&] { return m_cast->castCount() == 0; }));
    }

    void levels_data() {
        const Table<int, int, bool> row{"first", "second", "takesOver"};
        row("higher takes over", 1, 2, true);
        row("equal: the newer", 3, 3, true);
        row("lower is refused", 3, 2, false);
    }

    void levels() {
        QFETCH(int, first);
        QFETCH(int, second);
        QFETCH(bool, takesOver);
        Puller speaker(*m_link, 1);
        const auto play = [&](const char* file, int level) {
            ask("{'cmd':'PLAYMG'," + list({1}) + ",'filelist':['" + file +
                "'],'level':" + QByteArray::number(level) + '}');
        };
        play("a.mg", first);
        QVERIFY(waitFor([&] { return speaker.heard().contains('a'); }));
        play("b.mg", second);
        if (!takesOver) {
            QVERIFY(waitFor([&] { return m_cast->castCount() == 1; }));
            QVERIFY(!speaker.heard().contains('b'));
            return;
        }
        QVERIFY(waitFor([&] { return speaker.heard().count('b') >= 500; }));
        const QByteArray heard = speaker.heard();
        const int begin = heard.indexOf('b');
        QCOMPARE(heard.mid(begin, 500), QByteArray(500, 'b'));
    }

    void stop() {
        Puller one(*m_link, 1), two(*m_link, 2);
        ask("{'cmd':'PLAYMG'," + list({1, 2}) + ",'filelist':['a.mg']}");
        QVERIFY(waitFor([&] { return one.heard().size() > 300; }));
        QCOMPARE(ask("{'cmd':'STOPMG'," + list({1}) + '}')["res"], "WELL");
        QVERIFY(waitFor([&] { return m_cast->castCount() == 0; }));
        QVERIFY(one.heard().size() < 2500 && two.heard().size() > 3500);
        QCOMPARE(ask("{'cmd':'STOPMG'," + list({1, 3}) + '}')["res"], "out_of_range");

        ask("{'cmd':'PLAYMG'," + list({1, 2}) + ",'filelist':['a.mg']}");
        ask("{'cmd':'STOPMG'," + list({1, 2}) + '}');
        QVERIFY(waitFor([&] { return m_cast->castCount() == 0; }));
    }

    void castsAreBounded() {
        const auto speaker = m_link->speaker(testSerial(1));
        for (int i = 0; i < Alarmcast::MaxCasts; ++i)
            QCOMPARE(ask("{'cmd':'PLAYMG'," + list({1}) + ",'filelist':['a.mg']}")["res"], "WELL");
        QCOMPARE(ask("{'cmd':'PLAYMG'," + list({1}) + ",'filelist':['a.mg']}")["res"], "write_erro");
    }

private:
    QString write(const QString& name, const QByteArray& bytes) {
        QFile file(m_directory.filePath("run/" + name));
        return file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size() ? file.fileName()
                                                                                    : QString();
    }
    QJsonObject ask(QByteArray request) {
        return QJsonDocument::fromJson(m_link->registry.Diamonds_jsondidocom(request.replace('\'', '"')))
            .object();
    }
    QByteArray list(std::initializer_list<int> speakers) const {
        QStringList serials;
        for (const int n : speakers)
            serials << testSerial(n).toHex();
        return "\"snlist\":[\"" + serials.join("\",\"").toLatin1() + "\"]";
    }

    QTemporaryDir m_directory;
    std::unique_ptr<DeviceLink> m_link;
    std::unique_ptr<Alarmcast> m_cast;
};

int main(int argc, char** argv) {
    return runTest<AlarmcastTest>(argc, argv);
}
#include "alarmcast_test.moc"
