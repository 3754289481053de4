#include "support/service.h"
#include "support/testmain.h"

#include <QCryptographicHash>
#include <QDir>
#include <QProcess>

/// The interface v1 and its document against each other: tests/interface/ has what is run.
class InterfaceTest : public QObject {
    Q_OBJECT
private slots:
    void theDocumentIsValid() { runNode({"check.mjs", SOURCE_DIR "/docs/openapi.json"}); }

    /// Requests made from the document; INTERFACE_REQUESTS and INTERFACE_SEED say how many, and which.
    void answersAreAsTheDocumentTells() {
        Service service;
        QVERIFY(service.start());
        QStringList arguments{"generate.mjs",
                              "--document",
                              SOURCE_DIR "/docs/openapi.json",
                              "--url",
                              service.url("/api/v1"),
                              "--count",
                              qEnvironmentVariable("INTERFACE_REQUESTS", "1000"),
                              "--seed",
                              qEnvironmentVariable("INTERFACE_SEED", "1")};
#ifndef __SANITIZE_ADDRESS__ // which keeps what is freed
        arguments << "--pid" << QString::number(service.pid());
#endif
        Account owner;
        for (const char* name : {"boss", "owner"}) {
            owner = service.addAccount(name);
            const QByteArray token = QByteArray(name).leftJustified(43, '_');
            const QByteArray hash = QCryptographicHash::hash(token, QCryptographicHash::Sha256).toHex();
            service.sql(QString("INSERT INTO `apitoken` (`account`, `hash`, `created`) VALUES (%1, '%2', 0)")
                            .arg(owner.id)
                            .arg(QString(hash)));
            arguments << "--token" << token;
        }
        service.sql("UPDATE `sbox_users` SET `user_level` = 1 WHERE `user_name` = 'boss'");
        const QString serial(32, 'a');
        service.giveSpeakers(owner, {serial});
        const HttpReply played = service.http().postForm(
            "/user/urlplay", owner.params({{"snlist", serial}, {"url", service.url("/mp3/a.mp3")}}));
        QCOMPARE(played.status, 200); // a broadcast, for the journal
        runNode(arguments);
    }

private:
    static void runNode(const QStringList& arguments) {
        QProcess node;
        node.setWorkingDirectory(SOURCE_DIR "/tests/interface");
        node.setProcessChannelMode(QProcess::MergedChannels);
        node.start("node", arguments);
        const bool isOver = node.waitForFinished(550'000);
        const QByteArray told = node.readAll();
        qInfo().noquote() << told;
        QVERIFY2(isOver && node.exitStatus() == QProcess::NormalExit && node.exitCode() == 0, told);
    }
};

int main(int argc, char** argv) {
    return runTest<InterfaceTest>(argc, argv);
}
#include "interface_test.moc"
