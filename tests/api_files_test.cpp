#include "support/speakers.h"
#include "support/table.h"
#include "support/testmain.h"

#include <atomic>
#include <QCryptographicHash>
#include <QtTest>
#include <thread>

namespace {

QByteArray bytesOf(const QString& path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

QStringList filesBelow(const QString& directory) {
    QStringList found;
    QDirIterator walk(directory, QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
    while (walk.hasNext())
        found << QDir(directory).relativeFilePath(walk.next());
    found.sort();
    return found;
}

} // namespace

/// Uploads, lists, deletes and speaks against the real service with the real encoders.
class ApiFilesTest : public QObject {
    Q_OBJECT
private slots:
    void initTestCase_data() { addKinds({3, 0, 1}); }

    void init() {
        QFETCH_GLOBAL(int, kind);
        m_kind = kind;
        ServiceOptions options;
        options.kind = kind;
        options.settings = {{"listener/maxMultiPartSize", 4'000'000},
                            {"listener/maxThreads", 3},
                            {"adminpictures", kind != 0}};
        m_service = std::make_unique<Service>(options);
        QVERIFY(m_service->start());
        m_admin = m_service->addAccount("admin");
        m_service->sql("UPDATE sbox_users SET user_level = 1");
    }

    void cleanup() {
        if (m_service->isRunning())
            QCOMPARE(m_service->stop(), 0);
        m_service.reset();
    }

    void storesListsReplacesAndDeletes() {
        const HttpReply first = upload("/user/uploadfile", makeMp3(1.2), "上课铃 1");
        QVERIFY2(first.res(), first.body);
        const QString url = first["url"].toString();
        QCOMPARE(url,
                 QString("mp3/%1/%2.mp3").arg(m_admin.id).arg(QString(QString("上课铃1").toUtf8().toHex())));
        QCOMPARE(first["len"].toInt(), 2);
        QCOMPARE(first["filesize"].toInt(), int(QFileInfo(m_service->docroot() + '/' + url).size()));
        QCOMPARE(m_service->http().get('/' + url).body, bytesOf(m_service->docroot() + '/' + url));

        const HttpReply second = upload("/user/wxuploadfile", makeMp3(3.2), "上课铃1");
        QVERIFY2(second.res(), second.body);
        QCOMPARE(second["fileid"], first["fileid"]);
        QVERIFY(second.json().contains("fileByte"));
        const auto table = m_service->sql("SELECT * FROM userfile");
        QCOMPARE(table.size(), 1);
        QCOMPARE(table.first().value("len").toInt(), 4);
        const QByteArray file = bytesOf(m_service->docroot() + '/' + url);
        QCOMPARE(table.first().value("crl").toByteArray(),
                 QCryptographicHash::hash(file, QCryptographicHash::Md5).toHex());

        const QJsonArray list =
            m_service->http().postForm("/user/listfile", m_admin.params())["filelist"].toArray();
        QCOMPARE(list.size(), 1);
        QCOMPARE(QByteArray::fromBase64(list[0]["filenamebase64"].toString().toLatin1()),
                 QString("上课铃1").toUtf8());
        QCOMPARE(list[0]["len"].toInt(), 4);
        QCOMPARE(list[0]["sizeByte"].toInt(), file.size());

        const QString id = QString::number(second["fileid"].toInt());
        const Account other = m_service->addAccount("other");
        const HttpReply foreign = m_service->http().postForm("/user/delfile", other.params({{"fileid", id}}));
        const HttpReply gone = m_service->http().postForm("/user/delfile", m_admin.params({{"fileid", id}}));
        if (m_kind == 0) {
            QVERIFY(gone.body.startsWith("this opt on lite devs"));
            QCOMPARE(stored().size(), 1);
            return;
        }
        QCOMPARE(foreign.info(), "ER_REJECT");
        QVERIFY2(gone.res(), gone.body);
        QCOMPARE(rows("userfile"), 0);
        QCOMPARE(stored(), QStringList());
    }

    void refusesAndLeavesNothing_data() {
        const Table<QString, QByteArray, QString> row{"path", "bytes", "info"};
        const QByteArray text = QByteArray("not a sound\n").repeated(100);
        row("text", "/user/uploadfile", text, "Decode_error");
        row("cut mp3", "/user/uploadfile", makeMp3(20).left(90'000), "Decode_error");
        row("text as picture", "/user/wxtouxianguploadfile", text, "Decode_error");
        row("text as carousel", "/user/swapupload", text, "Decode_error");
        row("over the limit", "/user/uploadfile", QByteArray(5'000'000, 'x'), "");
    }

    void refusesAndLeavesNothing() {
        QFETCH(QString, path);
        QFETCH(QByteArray, bytes);
        QFETCH(QString, info);
        const HttpReply reply = upload(path, bytes, "name", {{"lunbotext", "title"}});
        if (info.isEmpty())
            QVERIFY2(reply.status == 413 || reply.status == 0, reply.body);
        else
            QCOMPARE(reply.info(), info);
        const HttpReply wrongToken = m_service->http().postMultipart(
            path,
            {{"id", QString::number(m_admin.id)}, {"token", "x"}, {"filename", "n"}, {"lunbotext", "t"}},
            "file", "f", makeMp3(1));
        QCOMPARE(wrongToken.info(), "_FALSE6");
        const HttpReply noFile = m_service->http().postForm(path, m_admin.params({{"filename", "n"}}));
        QCOMPARE(noFile.info(), "NoFile in FormData");
        QCOMPARE(stored(), QStringList());
        QCOMPARE(rows("userfile"), 0);
        QVERIFY(m_service->isRunning());
    }

    void takesOddNames_data() {
        const Table<QString, QString, QString> row{"name", "partName", "stem"};
        row("way out", "../../../evil", "f", "......evil");
        row("quote", "it's", "f", "it's");
        row("nothing left", "_ * @", "f", "");
        row("the part's own", QString(), "bell 1.wav", "bell1.wav");
        row("long", QString(), QString(1023, '_') + "é" + QString(900, 'x'), "");
    }

    void takesOddNames() {
        QFETCH(QString, name);
        QFETCH(QString, partName);
        QFETCH(QString, stem);
        const HttpReply reply = m_service->http().postMultipart(
            "/user/wxuploadfile",
            m_admin.params(name.isNull() ? HttpParams() : HttpParams{{"filename", name}}), "file", partName,
            makeMp3(0.5));
        QVERIFY2(reply.res(), reply.body);
        const QString file =
            QString("docroot/mp3/%1/%2.mp3").arg(m_admin.id).arg(QString(stem.toUtf8().toHex()));
        QCOMPARE(stored(), QStringList(file));
        QCOMPARE(rows("userfile"), 1);
        const QJsonValue listed =
            m_service->http().postForm("/user/listfile", m_admin.params())["filelist"].toArray().first();
        QCOMPARE(listed["filename"].toString(), stem);
        QCOMPARE(m_service->http().get(QUrl(listed["playurl"].toString()).path()).status, 200);
    }

    void keepsPicturesAndSharedFiles() {
        const QByteArray png = QByteArray("\x89PNG\r\n\x1A\n", 8) + QByteArray(500, 'p');
        QVERIFY(upload("/user/wxtouxianguploadfile", png).res());
        QVERIFY(upload("/user/wxlogopnguploadfile", png).res());
        const Account other = m_service->addAccount("other");
        const HttpReply others = m_service->http().postMultipart("/user/wxlogopnguploadfile", other.params(),
                                                                 "file", "f", m_kind == 0 ? png : png + "no");
        QCOMPARE(others.info(), m_kind == 0 ? "SUC" : "ER_REJECT");
        QCOMPARE(upload("/user/swapupload", png, "n", {{"lunbotext", "t"}, {"to", "javascript:x"}}).info(),
                 "Parusersss");
        QCOMPARE(m_service->http().get("/static/u1.jpg").body, png);
        QCOMPARE(m_service->http().get("/static/logo.png").body, png);

        const QJsonObject one =
            upload("/user/swapupload", png, "n", {{"lunbotext", "标题"}, {"to", "x"}}).json();
        const QJsonObject two = upload("/user/swapupload", png + "2", "n", {{"lunbotext", "two"}}).json();
        QVERIFY(one.value("url") != two.value("url"));
        QCOMPARE(m_service->http().get('/' + one.value("url").toString()).body, png);
        QCOMPARE(m_service->http().get("/tmp.jpg").body, png + "2");
        QCOMPARE(
            m_service->sql("SELECT * FROM swap_info WHERE title = '标题'").first().value("url").toString(),
            one.value("url").toString());

        for (const QByteArray& bytes : {QByteArray("first"), QByteArray("second")}) {
            const HttpReply shared = upload("/user/allfileupload", bytes, "../.why?é.pdf");
            QCOMPARE(shared["url"].toString(), QString("ksfile/%1/why?é.pdf").arg(m_admin.id));
            const QString address = m_service->url(QString("/ksfile/%1/why%3F%C3%A9.pdf").arg(m_admin.id));
            QCOMPARE(shared["playurl"].toString(), address);
            QCOMPARE(m_service->http().get(address.mid(m_service->url("").size())).body, bytes);
        }
        QCOMPARE(rows("sharefiles"), 1);
    }

    void speaksAndPlays() {
        const auto fleet = onlineFleet(speakersAt(*m_service), 1);
        const HttpParams speech = m_admin.params({{"text", "Attention please. 上课了"},
                                                  {"vol", "80"},
                                                  {"speed", "50"},
                                                  {"shengyin", "no such voice"},
                                                  {"filename", "say it"}});
        const HttpReply played = m_service->http().postForm(
            "/user/ttsplayfile", speech + HttpParams{{"snlist", fleet->serials().join('|')}});
        QVERIFY2(played.res(), played.body);
        QCOMPARE(played.info(), QString(m_kind == 0 ? "Lite mode suc" : "SUC"));
        QVERIFY(waitFor([&] { return fleet->at(0).fetches().size() == 1; }));
        const QString file = m_service->docroot() + '/' + played["url"].toString();
        QCOMPARE(qint64(fleet->at(0).fetches().front().size), QFileInfo(file).size());
        QCOMPARE(rows("userfile"), m_kind == 0 ? 0 : 1);

        const HttpReply saved = m_service->http().postForm("/user/savettsfile", speech);
        QVERIFY2(saved.res(), saved.body);
        QVERIFY(saved["lastid"].toInt() > 0);
        QCOMPARE(rows("userfile"), 1);
        QCOMPARE(filesBelow(QString(SOURCE_DIR "/programs/tty")), QStringList());
        const auto info = [&](HttpParams params) {
            return m_service->http().postForm("/user/ttsplayfile", params).info();
        };
        QCOMPARE(info(speech), "Paruser");
        QCOMPARE(info(HttpParams{{"id", "99"}, {"token", "x"}} + speech.mid(2) + HttpParams{{"snlist", "a"}}),
                 "_FALSE51");
        QCOMPARE(info(speech + HttpParams{{"snlist", ""}}), "snlist_error");
    }

    /// Two of an account's eight are encoded at a time; the others wait, and none of them holds a worker.
    void takesTurns() {
        const QByteArray sound = makeMp3(30);
        std::atomic<int> stored{0};
        std::vector<std::thread> clients;
        for (int i = 0; i < 8; ++i) {
            const HttpParams params = m_admin.params({{"filename", QString::number(i)}});
            clients.emplace_back([&stored, &sound, params, port = m_service->httpPort()] {
                stored +=
                    HttpClient(port).postMultipart("/user/uploadfile", params, "file", "f", sound).res();
            });
        }
        const bool began = m_service->waitForLog("encode start");
        const QByteArray answer = m_service->http().postForm("/user/test", {{"x", "y"}}).body;
        const int storedBefore = stored;
        for (std::thread& client : clients)
            client.join();
        QVERIFY(began);
        QCOMPARE(answer, "dbtest");
        QVERIFY2(storedBefore < 4, "the answer came behind the uploads");
        QCOMPARE(stored, 8);
        QVERIFY(waitFor([this] { return m_service->log().count("encode done") == 8; }));
        int running = 0;
        for (const QByteArray& line : m_service->log().split('\n')) {
            running += line.contains("encode start") ? 1 : 0;
            running -= line.contains("encode done") ? 1 : 0;
            QVERIFY(running <= 2);
        }
    }

    void survivesAKillWhileUploading() {
        QVERIFY(upload("/user/uploadfile", makeMp3(1), "kept").res());
        const QByteArray large = makeMp3(200);
        const quint16 port = m_service->httpPort();
        const HttpParams params = m_admin.params({{"filename", "lost"}});
        std::thread client(
            [&] { HttpClient(port).postMultipart("/user/uploadfile", params, "file", "f", large); });
        const bool started = m_service->waitForLog("from " + QByteArray::number(large.size()));
        m_service->kill9();
        client.join();
        QVERIFY(started);
        QVERIFY(m_service->start());
        QCOMPARE(stored().size(), 1);
        QCOMPARE(rows("userfile"), 1);
    }

private:
    HttpReply upload(const QString& path, const QByteArray& bytes, const QString& name = "bell",
                     const HttpParams& more = {}) {
        const HttpParams params = m_admin.params(HttpParams{{"filename", name}} + more);
        return m_service->http().postMultipart(path, params, "file", "upload.bin", bytes);
    }
    int rows(const QString& table) {
        return m_service->sql("SELECT COUNT(*) AS n FROM " + table).first().value("n").toInt();
    }
    QStringList stored() { return filesBelow(m_service->file("etc")); }

    std::unique_ptr<Service> m_service;
    Account m_admin;
    int m_kind = 3;
};

int main(int argc, char** argv) {
    return runTest<ApiFilesTest>(argc, argv);
}
#include "api_files_test.moc"
