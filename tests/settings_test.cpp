#include "core/settings.h"
#include "support/testmain.h"

#include <array>
#include <cstdio>
#include <QFile>
#include <QRegularExpression>
#include <QTemporaryDir>

static QString readSource(const char* path) {
    QFile file(QString(SOURCE_DIR "/") + path);
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
}

class SettingsTest : public QObject {
    Q_OBJECT
private slots:
    void defaultsAreTheTables() {
        const Settings missing = Settings::load(m_directory.filePath("missing.ini"), QString());
        QVERIFY(!missing.hasLocalIp());
        QCOMPARE(missing.text("localcdn"), ":8080");
        QCOMPARE(missing.integer("OPort0"), 6001);
        QCOMPARE(missing.integer("listener/port"), 12080);
        QVERIFY(missing.flag("nocdn"));
        for (const char* secret : {"ASKEY", "RedisAUTH", "task_passwd", "PayKey"})
            QCOMPARE(missing.text(secret), QString());
    }

    void valuesAreConverted() {
        const Settings settings = load("[Settings]\nDPort=abc\nPS1= 7001\nnocdn=FALSE\nEnableRedis=1\n"
                                       "task_passwd=\"a;b,c\"\ncmdallow=127.0.0.1,10.0.0.0/8\nbasename=学校\n"
                                       "[listener]\nport=0\n");
        QCOMPARE(settings.integer("DPort"), 0);
        QCOMPARE(settings.integer("PS1"), 7001);
        QVERIFY(!settings.flag("nocdn"));
        QVERIFY(settings.flag("EnableRedis"));
        QCOMPARE(settings.text("task_passwd"), "a;b,c");
        QCOMPARE(settings.text("cmdallow"), "127.0.0.1,10.0.0.0/8");
        QCOMPARE(settings.text("basename"), "学校");
        QCOMPARE(settings.integer("listener/port"), 0);
    }

    void hardenedIsADefault() {
        const Settings settings = load("[Settings]\nownonly=false\nhardened=true\n");
        QVERIFY(settings.flag("safeurls"));
        QVERIFY(!settings.flag("ownonly"));
        QVERIFY(!load("[Settings]\nDPort=1\n").flag("tokenpaths"));
    }

    void addressesAreDerived_data() {
        QTest::addColumn<QByteArray>("ini");
        QTest::addColumn<QByteArray>("detected");
        QTest::addColumn<QString>("expected"); // LocalIP, Meida_ip, localcdn, preurl
        const auto row = [](const char* tag, const char* ini, const char* detected, const char* expected) {
            QTest::newRow(tag) << QByteArray("[Settings]\n") + ini << QByteArray(detected)
                               << QString::fromLatin1(expected);
        };
        row("as written", "LocalIP=9.9.9.9\nMeida_ip=m\n", "10.1.2.3",
            "9.9.9.9 m 10.1.2.3:8080 http://127.0.0.1:12080/");
        row("detected",
            "LocalIP=9.9.9.9\nMeida_ip=m\nISLOCALHOST=true\npreurl=http://FUCKHOST:1/127.0.0.1/\n",
            "10.1.2.3", "10.1.2.3 10.1.2.3 10.1.2.3:8080 http://10.1.2.3:1/10.1.2.3/");
        row("overridden", "ISLOCALHOST=true\nlocipsss=7.7.7.7\n", "10.1.2.3",
            "7.7.7.7 7.7.7.7 7.7.7.7:8080 http://7.7.7.7:12080/");
        row("nothing detected", "LocalIP=9.9.9.9\nMeida_ip=m\nISLOCALHOST=true\n", "",
            "  :8080 http://:12080/");
        row("local CDN given", "LocalIP=9.9.9.9\nlocalcdn=c\n", "10.1.2.3",
            "9.9.9.9  c http://127.0.0.1:12080/");
    }

    void addressesAreDerived() {
        QFETCH(QByteArray, ini);
        QFETCH(QByteArray, detected);
        const Settings settings = load(ini, detected.constData());
        const QString actual = QStringList{settings.text("LocalIP"), settings.text("Meida_ip"),
                                           settings.text("localcdn"), settings.text("preurl")}
                                   .join(QLatin1Char(' '));
        QTEST(actual, "expected");
        QCOMPARE(settings.hasLocalIp(), ini.contains("LocalIP"));
    }

    void documentationIsTheTable() {
        constexpr std::array<const char*, 3> types = {"text", "integer", "flag"};
        QString expected;
        QString group;
        for (const SettingKey& key : settingKeys()) {
            if (group != key.group)
                expected += QString("\n## [%1]\n\n| Key | Type | Default | Meaning |\n|---|---|---|---|\n")
                                .arg(key.group);
            group = key.group;
            const QString value = *key.defaultValue ? QString("`%1`").arg(key.defaultValue) : QString();
            expected += QString("| `%1` | %2 | %3 | %4 |\n")
                            .arg(key.name, types.at(static_cast<size_t>(key.type)), value, key.doc);
        }
        const bool documented = readSource("docs/configuration.md").contains(expected);
        if (!documented) // too long for a test's message
            std::fputs(qPrintable("docs/configuration.md must hold:\n" + expected), stderr);
        QVERIFY(documented);
    }

    // Every key stands in the example, in the table's order; one that is commented out shows its default.
    void exampleIsTheTable() {
        const QStringList lines = readSource("packaging/config.ini.example").split('\n');
        const QRegularExpression keyLine("^(;?)(\\w+)=(.*)$");
        QString group;
        QStringList found;
        QMap<QString, QString> shown;
        for (const QString& line : lines) {
            if (line.startsWith('['))
                group = line.mid(1, line.indexOf(']') - 1) + '/';
            const auto match = keyLine.match(line);
            if (match.hasMatch())
                found.append(group + match.captured(2));
            if (match.hasMatch() && !match.captured(1).isEmpty())
                shown.insert(found.last(), match.captured(3));
        }
        QStringList expected;
        for (const SettingKey& key : settingKeys()) {
            const QString name = QString(key.group) + '/' + key.name;
            expected.append(name);
            if (shown.contains(name))
                QCOMPARE(name + '=' + shown.value(name), name + '=' + key.defaultValue);
        }
        QCOMPARE(found, expected);
    }

private:
    Settings load(const QByteArray& ini, const char* detected = "10.1.2.3") {
        QFile file(m_directory.filePath("config.ini"));
        if (!file.open(QIODevice::WriteOnly) || file.write(ini) != ini.size())
            qFatal("can't write the configuration");
        file.close();
        return Settings::load(file.fileName(), QLatin1String(detected));
    }
    QTemporaryDir m_directory;
};

int main(int argc, char** argv) {
    return runTest<SettingsTest>(argc, argv);
}
#include "settings_test.moc"
