#include "tools/speakerprotocol.h"

#include <array>
#include <QRegularExpression>

namespace sim {
namespace {

constexpr int kDigits = -1; ///< argument: a run of decimal digits
constexpr int kText = -2;   ///< argument: to the end of the read, less trailing commands
constexpr int kList = -3;   ///< argument: a list of addresses

struct Word {
    const char* text;
    Op op;
    int argument; ///< bytes, or one of the kinds above
};

// Longest word first where one begins another.
constexpr std::array kWords{
    Word{"GET_BAOJINGEE", Op::AlarmState, 0},
    Word{"GET_BAOJINGGE", Op::AlarmState, 0},
    Word{"GET_BAOJING", Op::AlarmState, 0},
    Word{"JXXXXX", Op::DeviceInfo, 0},
    Word{"SETVOL", Op::VolumeCode, 1},
    Word{"OKOK", Op::KeepAlive, 0},
    Word{"AM", Op::Time, 6},
    Word{"A0", Op::ContentServer, kText},
    Word{"A&", Op::ContentServer, kText},
    Word{"A1", Op::PlayList, kList},
    Word{"A2", Op::Preload, kList},
    Word{"A3", Op::Purge, kList},
    Word{"A4", Op::PlayUrl, kList},
    Word{"A5", Op::Stop, 0},
    Word{"A6", Op::PlayList, kList},
    Word{"A7", Op::Stop, 0},
    Word{"AS", Op::Stream, kList},
    Word{"AT", Op::TaskAdd, kText},
    Word{"AD", Op::TaskRemove, kDigits},
    Word{"AE", Op::TaskStop, kDigits},
    Word{"AL", Op::TaskList, 0},
    Word{"AR", Op::Reboot, 0},
    Word{"A@", Op::TasksClear, 0},
    Word{"AF", Op::TasksStop, 0},
    Word{"A#", Op::FileTransfer, kText},
    Word{"V", Op::Volume, 1},
    Word{"M", Op::Microphone, 2},
    Word{"I", Op::Debug, 1},
    Word{"G", Op::Gpio, 2},
    Word{"Y", Op::ServerAddress, 6},
    Word{"K", Op::DataConnect, 6},
    Word{"X", Op::Speak, kText},
};

const Word* wordAt(const QByteArray& bytes, int at) {
    for (const Word& word : kWords)
        if (bytes.mid(at, int(qstrlen(word.text))) == word.text)
            return &word;
    return nullptr;
}

/// True where a second command word begins: used behind an address only.
bool commandBeginsAt(const QByteArray& bytes, int at) {
    const char c = bytes.at(at);
    if (c == 'A' && at + 1 < bytes.size())
        return strchr("0123456789&SMTDELR@F#", bytes.at(at + 1)) != nullptr;
    return strchr("OJSVMIGYKX", c) != nullptr && wordAt(bytes, at) != nullptr;
}

/// End of the list that begins at `from`.
int listEnd(const QByteArray& bytes, int from) {
    static const QByteArray suffix = QByteArrayLiteral(".mp3");
    for (int at = bytes.indexOf(suffix, from); at >= 0; at = bytes.indexOf(suffix, at)) {
        at += suffix.size();
        if (at < bytes.size() && !commandBeginsAt(bytes, at) && strchr("ABF5", bytes.at(at)) != nullptr)
            ++at;
        if (at >= bytes.size())
            break;
        if (commandBeginsAt(bytes, at))
            return at;
    }
    return int(bytes.size());
}

int textEnd(const QByteArray& bytes, int from) {
    int end = int(bytes.size());
    for (bool again = true; again;) {
        again = false;
        for (const QByteArray& word : {QByteArrayLiteral("OKOK"), QByteArrayLiteral("JXXXXX")}) {
            if (end - from > word.size() && bytes.mid(end - int(word.size()), int(word.size())) == word) {
                end -= int(word.size());
                again = true;
            }
        }
    }
    return end;
}

int argumentEnd(const QByteArray& bytes, int from, int kind) {
    switch (kind) {
    case kDigits: {
        int end = from;
        while (end < bytes.size() && isdigit(static_cast<unsigned char>(bytes.at(end))) != 0)
            ++end;
        return end;
    }
    case kText:
        return textEnd(bytes, from);
    case kList:
        return std::min(listEnd(bytes, from), textEnd(bytes, from));
    default:
        return from + kind;
    }
}

} // namespace

std::vector<Command> splitCommands(const QByteArray& read, QByteArray* rest) {
    std::vector<Command> commands;
    for (int at = 0; at < read.size();) {
        const Word* word = wordAt(read, at);
        if (word == nullptr) {
            commands.push_back({Op::Unknown, read.mid(at), read.mid(at)});
            break;
        }
        const int begin = at + int(qstrlen(word->text));
        const int end = argumentEnd(read, begin, word->argument);
        if (end > read.size()) {
            if (rest != nullptr)
                *rest = read.mid(at);
            break;
        }
        commands.push_back({word->op, read.mid(at, end - at), read.mid(begin, end - begin)});
        at = end;
    }
    return commands;
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
