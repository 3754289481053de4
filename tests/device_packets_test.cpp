#include "device/blocklist.h"
#include "device/packets.h"
#include "device/volume.h"
#include "support/table.h"
#include "support/testmain.h"

#include <QJsonDocument>

namespace {
QByteArray serial() {
    return QByteArray::fromHex("00112233445566778899aabbccddeeff");
}

// Every byte differs, so a field read from the wrong place shows.
QByteArray form() {
    QByteArray bytes;
    for (int i = 0; i < packets::StatusFormLength; ++i)
        bytes.append(static_cast<char>(0xC0 + i));
    bytes[39] = static_cast<char>(59);
    return bytes;
}
} // namespace

class PacketsTest : public QObject {
    Q_OBJECT
private slots:
    void volumeTable() {
        // Key points of the uneven table: both ends, and where the step changes.
        const QList<QPair<int, int>> pairs{{1, 112}, {2, 101}, {3, 90}, {10, 59},
                                           {18, 31}, {19, 29}, {25, 16}};
        for (const auto& pair : pairs)
            QCOMPARE(int(volumeCode(static_cast<unsigned char>(pair.first))), pair.second);
        for (unsigned char level = 1; level <= 25; ++level)
            QCOMPARE(volumeLevel(volumeCode(level)), level);
    }

    void volumeOutsideTheTable() {
        for (const quint8 level : std::initializer_list<quint8>{0, 26, 255})
            QCOMPARE(int(volumeCode(level)), 31);
        for (const quint8 code : std::initializer_list<quint8>{0, 15, 17, 113, 200, 255})
            QCOMPARE(int(volumeLevel(code)), 18);
    }

    void registrationPacket() {
        const QJsonObject expected{{"sn", "00112233445566778899aabbccddeeff"},
                                   {"status", "1"},
                                   {"vol", "200"},
                                   {"severip", "0.0.0.0"},
                                   {"localip", "0.0.0.0"},
                                   {"localmask", "0.0.0.0"},
                                   {"localwg", "0.0.0.0"},
                                   {"leixing", "1"},
                                   {"xuhao", "1"},
                                   {"severport", "0"},
                                   {"res_____", true}};
        QCOMPARE(packets::registration(serial() + "\x7f\xc8"), expected);
    }

    void statusForm() {
        const QJsonObject expected{{"localip", "192.193.194.195"},
                                   {"localmask", "196.197.198.199"},
                                   {"localwg", "200.201.202.203"},
                                   {"xuhao", QString::number(0xD2D3)},
                                   {"leixing", QString::number(0xD4)},
                                   {"sn", "d5d6d7d8d9dadbdcdddedfe0"},
                                   {"severip", "225.226.227.228"},
                                   {"severport", QString::number(0xE5E6)},
                                   {"vol", "10"},
                                   {"status", QString::number(0xE8)},
                                   {"res_____", true}};
        QCOMPARE(packets::statusForm(form() + "DEIFS"), expected);
    }

    void refused_data() {
        const Table<QJsonObject> row{"description"};
        for (const int length : {0, 17, 19, 40})
            row("registration of " + QByteArray::number(length),
                packets::registration(QByteArray(length, 'a')));
        row("empty form", packets::statusForm({}));
        row("trailer alone", packets::statusForm("DEIFS"));
        row("one byte short", packets::statusForm(form().left(40) + "DEIFS"));
        row("no trailer", packets::statusForm(form()));
        row("trailer in front", packets::statusForm("DEIFS" + form()));
    }

    void refused() {
        QFETCH(QJsonObject, description);
        QCOMPARE(description, (QJsonObject{{"res_____", false}}));
    }

    void addresses_data() {
        const Table<QString, QByteArray> row{"dotted", "bytes"};
        row("plain", "192.168.1.20", QByteArray::fromHex("c0a80114"));
        row("leading zeros are decimal", "010.08.009.1", QByteArray::fromHex("0a080901"));
        row("empty", "", QByteArray(4, '\0'));
        row("too few parts", "1.2", QByteArray::fromHex("01020000"));
        row("words", "a.b.3.d", QByteArray::fromHex("00000300"));
    }

    void addresses() {
        QFETCH(QString, dotted);
        QFETCH(QByteArray, bytes);
        QCOMPARE(packets::addressBytes(dotted), bytes);
    }

    void blockList_data() {
        const Table<QByteArray, QStringList> row{"json", "serials"};
        row("two", QByteArray(R"(["aa","bb"])"), QStringList{"aa", "bb"});
        row("numbers are text", "[12]", QStringList{"12"});
        row("no array", QByteArray(R"({"aa":1})"), {});
        row("cut off", QByteArray(R"(["aa",)"), {});
        row("empty", {}, {});
    }

    void blockList() {
        QFETCH(QByteArray, json);
        QTEST(parseBlockList(json), "serials");
    }
};

int main(int argc, char** argv) {
    return runTest<PacketsTest>(argc, argv);
}
#include "device_packets_test.moc"
