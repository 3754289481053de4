#include "core/settings.h"
#include "support/testmain.h"

#include <QFile>
#include <QTemporaryDir>

class SettingsTest : public QObject {
    Q_OBJECT
private slots:
    void defaultsAreTheTables();
    void valuesAreConverted();
    void addressesAreDerived_data();
    void addressesAreDerived();

private:
    Settings load(const QByteArray& ini, const char* detected = "10.1.2.3");
    QTemporaryDir m_directory;
};

Settings SettingsTest::load(const QByteArray& ini, const char* detected) {
    QFile file(m_directory.filePath(QStringLiteral("config.ini")));
    if (!file.open(QIODevice::WriteOnly) || file.write(ini) != ini.size())
        qFatal("can't write the configuration");
    file.close();
    return Settings::load(file.fileName(), QLatin1String(detected));
}

void SettingsTest::defaultsAreTheTables() {
    const Settings missing = Settings::load(m_directory.filePath(QStringLiteral("missing.ini")), QString());
    QVERIFY(!missing.hasLocalIp());
    QCOMPARE(missing.text("localcdn"), QStringLiteral(":8080"));
    QCOMPARE(missing.integer("OPort0"), 6001);
    QCOMPARE(missing.integer("OPort1"), 6001);
    QCOMPARE(missing.integer("Netcross_Port1"), 6001);
    QCOMPARE(missing.integer("listener/port"), 12080);
    QVERIFY(missing.flag("nocdn"));
    for (const char* secret : {"ASKEY", "RedisAUTH", "task_passwd", "PayKey"})
        QCOMPARE(missing.text(secret), QString());
}

void SettingsTest::valuesAreConverted() {
    const Settings settings = load("[Settings]\nDPort=abc\nPS1= 7001\nnocdn=FALSE\nEnableRedis=1\n"
                                   "task_passwd=\"a;b,c\"\ncmdallow=127.0.0.1,10.0.0.0/8\nbasename=学校\n"
                                   "[listener]\nport=0\n");
    QCOMPARE(settings.integer("DPort"), 0);
    QCOMPARE(settings.integer("PS1"), 7001);
    QVERIFY(!settings.flag("nocdn"));
    QVERIFY(settings.flag("EnableRedis"));
    QCOMPARE(settings.text("task_passwd"), QStringLiteral("a;b,c"));
    QCOMPARE(settings.text("cmdallow"), QStringLiteral("127.0.0.1,10.0.0.0/8"));
    QCOMPARE(settings.text("basename"), QStringLiteral("学校"));
    QCOMPARE(settings.integer("listener/port"), 0);
}

void SettingsTest::addressesAreDerived_data() {
    QTest::addColumn<QByteArray>("ini");
    QTest::addColumn<QByteArray>("detected");
    QTest::addColumn<QString>("expected"); // LocalIP, Meida_ip, localcdn, preurl
    const auto row = [](const char* tag, const char* ini, const char* detected, const char* expected) {
        QTest::newRow(tag) << QByteArray("[Settings]\n") + ini << QByteArray(detected)
                           << QString::fromLatin1(expected);
    };
    row("as written", "LocalIP=9.9.9.9\nMeida_ip=m\n", "10.1.2.3",
        "9.9.9.9 m 10.1.2.3:8080 http://127.0.0.1:12080/");
    row("detected", "LocalIP=9.9.9.9\nMeida_ip=m\nISLOCALHOST=true\npreurl=http://FUCKHOST:1/127.0.0.1/\n",
        "10.1.2.3", "10.1.2.3 10.1.2.3 10.1.2.3:8080 http://10.1.2.3:1/10.1.2.3/");
    row("overridden", "ISLOCALHOST=true\nlocipsss=7.7.7.7\n", "10.1.2.3",
        "7.7.7.7 7.7.7.7 7.7.7.7:8080 http://7.7.7.7:12080/");
    row("nothing detected", "LocalIP=9.9.9.9\nMeida_ip=m\nISLOCALHOST=true\n", "", "  :8080 http://:12080/");
    row("local CDN given", "LocalIP=9.9.9.9\nlocalcdn=c\n", "10.1.2.3", "9.9.9.9  c http://127.0.0.1:12080/");
}

void SettingsTest::addressesAreDerived() {
    QFETCH(QByteArray, ini);
    QFETCH(QByteArray, detected);
    const Settings settings = load(ini, detected.constData());
    const QString actual = QStringList{settings.text("LocalIP"), settings.text("Meida_ip"),
                                       settings.text("localcdn"), settings.text("preurl")}
                               .join(QLatin1Char(' '));
    QTEST(actual, "expected");
    QCOMPARE(settings.hasLocalIp(), ini.contains("LocalIP"));
}

int main(int argc, char** argv) {
    return runTest<SettingsTest>(argc, argv);
}
#include "settings_test.moc"
