#include "tools/speakerprotocol.h"

#include <algorithm>
#include <array>
#include <QRegularExpression>

namespace sim {
namespace {

bool fits(const QByteArray& argument, int kind) {
    if (kind == words::Text)
        return true;
    if (kind >= 0)
        return argument.size() == kind;
    const auto isDigit = [](char c) {
        return isdigit(static_cast<unsigned char>(c)) != 0;
    };
    return std::all_of(argument.begin(), argument.end(), isDigit);
}

} // namespace

int takeKeepAlives(QByteArray& read) {
    static const QByteArray keepAlive = words::KeepAlive;
    int count = 0;
    for (; read.startsWith(keepAlive); ++count)
        read.remove(0, keepAlive.size());
    for (; read.endsWith(keepAlive); ++count)
        read.chop(keepAlive.size());
    return count;
}

Command commandOf(const QByteArray& read) {
    for (const words::Word& word : words::Commands) {
        const QByteArray argument = read.mid(int(qstrlen(word.text)));
        if (read.startsWith(word.text) && fits(argument, word.argument))
            return {word.op, read, argument};
    }
    return {Op::Unknown, read, read};
}

std::vector<ListEntry> parseList(const QByteArray& list) {
    std::vector<ListEntry> entries;
    const auto lines = QString::fromUtf8(list).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    for (const QString& line : lines) {
        static const QRegularExpression separators(QStringLiteral("[\\s&]*\\s[\\s&]*"));
        QStringList parts = line.trimmed().split(separators, Qt::SkipEmptyParts);
        if (parts.isEmpty())
            continue;
        ListEntry entry;
        entry.address = parts.takeFirst();
        entry.options = parts;
        static const QRegularExpression suffixed(QStringLiteral("\\.mp3([ABF5])$"));
        const auto match = suffixed.match(entry.address);
        if (match.hasMatch()) {
            entry.suffix = match.captured(1).at(0);
            entry.address.chop(1);
        }
        entries.push_back(entry);
    }
    return entries;
}

Binding parseBinding(const QByteArray& entry) {
    const QString text = QString::fromUtf8(entry).trimmed();
    static const QRegularExpression cleared(QStringLiteral("^([BF])_NONE\\.mp3$"));
    static const QRegularExpression bound(QStringLiteral("^(http.*\\.mp3)([BF])$"));
    static const QRegularExpression removed(QStringLiteral("&&\\s*rm\\s*([^\\s&]+)\\s*&&$"));
    static const QRegularExpression stored(
        QStringLiteral("(https?://[^\"\\s>]+)\"?\\s*>\\s*([^\\s&]+)\\s*&&$"));
    if (const auto m = cleared.match(text); m.hasMatch())
        return {Binding::Kind::Clear, m.captured(1), {}};
    if (const auto m = bound.match(text); m.hasMatch())
        return {Binding::Kind::Bind, m.captured(2), m.captured(1)};
    if (const auto m = removed.match(text); m.hasMatch())
        return {Binding::Kind::Clear, m.captured(1), {}};
    if (const auto m = stored.match(text); m.hasMatch()) {
        const QString address = m.captured(1);
        const auto carried = address.lastIndexOf(QLatin1String("http"));
        return {Binding::Kind::Bind, m.captured(2), address.mid(carried)};
    }
    return {};
}

QByteArray registrationPacket(const QByteArray& serial, quint8 volume) {
    return serial.leftJustified(16, '\0', true) + '\0' + static_cast<char>(volume);
}

QHostAddress addressOf(const QByteArray& argument) {
    if (argument.size() != 6)
        return {};
    quint32 address = 0;
    for (int i = 0; i < 4; ++i)
        address = (address << 8) | static_cast<quint8>(argument.at(i));
    return QHostAddress(address);
}

quint16 portOf(const QByteArray& argument) {
    if (argument.size() != 6)
        return 0;
    return static_cast<quint16>(static_cast<quint8>(argument.at(4)) << 8 |
                                static_cast<quint8>(argument.at(5)));
}

int levelOfCode(quint8 code) {
    constexpr std::array<quint8, 25> codes{112, 101, 90, 88, 85, 79, 74, 69, 64, 59, 56, 52, 47,
                                           43,  41,  38, 35, 31, 29, 26, 24, 22, 20, 18, 16};
    for (std::size_t i = 0; i < codes.size(); ++i)
        if (codes.at(i) == code)
            return int(i) + 1;
    return 18;
}

QByteArray serialAt(const QByteArray& first, quint32 index) {
    QByteArray serial = first.leftJustified(16, '\0', true);
    quint32 carry = index;
    for (int i = 15; i >= 0 && carry != 0; --i) {
        const quint32 sum = static_cast<quint8>(serial.at(i)) + (carry & 0xff);
        serial[i] = static_cast<char>(sum & 0xff);
        carry = (carry >> 8) + (sum >> 8);
    }
    return serial;
}

} // namespace sim
