#include "fronts/websocketframes.h"

#include <algorithm>
#include <QtEndian>
#include <QTextCodec>

namespace websocket {

namespace {

constexpr int FinalBit = 0x80;
constexpr int ReservedBits = 0x70;
constexpr int OpcodeBits = 0x0F;
constexpr int MaskBit = 0x80;
constexpr int LengthBits = 0x7F;
constexpr int TwoByteLength = 126;
constexpr int EightByteLength = 127;
constexpr int MaskSize = 4;

int byteAt(const QByteArray& bytes, int at) {
    return static_cast<unsigned char>(bytes.at(at));
}

Event error(CloseCode code, const char* reason) {
    return {Event::Kind::Error, {}, code, reason};
}

bool isKnown(int opcode) {
    return opcode <= static_cast<int>(Opcode::Binary) ||
           (opcode >= static_cast<int>(Opcode::Close) && opcode <= static_cast<int>(Opcode::Pong));
}

bool isUtf8(const QByteArray& text) {
    static QTextCodec* const codec = QTextCodec::codecForName("UTF-8");
    QTextCodec::ConverterState state(QTextCodec::IgnoreHeader);
    codec->toUnicode(text.constData(), text.size(), &state);
    return state.invalidChars == 0 && state.remainingChars == 0;
}

template<typename Integer>
QByteArray bigEndian(Integer value) {
    QByteArray bytes(sizeof value, Qt::Uninitialized);
    qToBigEndian(value, bytes.data());
    return bytes;
}

} // namespace

QByteArray frame(Opcode opcode, const QByteArray& payload) {
    constexpr int shortest = 0x10000; // of those whose length needs eight bytes
    QByteArray bytes;
    bytes.reserve(payload.size() + 10);
    bytes.append(static_cast<char>(FinalBit | static_cast<int>(opcode)));
    if (payload.size() < TwoByteLength)
        bytes.append(static_cast<char>(payload.size()));
    else if (payload.size() < shortest)
        bytes.append(char(TwoByteLength)).append(bigEndian(static_cast<quint16>(payload.size())));
    else
        bytes.append(char(EightByteLength)).append(bigEndian(static_cast<quint64>(payload.size())));
    return bytes.append(payload);
}

QByteArray closeFrame(CloseCode code, const QByteArray& reason) {
    return frame(Opcode::Close, bigEndian(static_cast<quint16>(code)) + reason);
}

Event FrameReader::read(std::string_view& bytes) {
    while (true) {
        if (!m_isHeadRead) {
            if (auto refused = readHead(bytes))
                return *refused;
            if (!m_isHeadRead)
                return {};
        }
        readPayload(bytes);
        if (m_left > 0)
            return {};
        m_isHeadRead = false;
        m_head.clear();
        if (auto event = endFrame())
            return *event;
    }
}

int FrameReader::headSize() const {
    constexpr int fixed = 2;
    if (m_head.size() < fixed)
        return fixed;
    const int length = byteAt(m_head, 1) & LengthBits;
    return fixed + MaskSize + (length == TwoByteLength ? 2 : length == EightByteLength ? 8 : 0);
}

std::optional<Event> FrameReader::readHead(std::string_view& bytes) {
    while (!bytes.empty() && m_head.size() < headSize()) {
        const auto taken = std::min(bytes.size(), static_cast<std::size_t>(headSize() - m_head.size()));
        m_head.append(bytes.data(), static_cast<int>(taken));
        bytes.remove_prefix(taken);
        if (m_head.size() == 2) {
            if (auto refused = checkHead())
                return refused;
        }
    }
    if (m_head.size() < headSize())
        return std::nullopt;
    m_opcode = static_cast<Opcode>(byteAt(m_head, 0) & OpcodeBits);
    m_isFinal = (byteAt(m_head, 0) & FinalBit) != 0;
    m_isHeadRead = true;
    m_maskAt = 0;
    return readLength();
}

std::optional<Event> FrameReader::checkHead() const {
    const int first = byteAt(m_head, 0);
    const int second = byteAt(m_head, 1);
    const int opcode = first & OpcodeBits;
    if ((first & ReservedBits) != 0 || !isKnown(opcode))
        return error(CloseCode::ProtocolError, "unknown frame");
    if ((second & MaskBit) == 0)
        return error(CloseCode::ProtocolError, "frame without a mask");
    const bool control = opcode >= static_cast<int>(Opcode::Close);
    if (control && ((first & FinalBit) == 0 || (second & LengthBits) > MaxControl))
        return error(CloseCode::ProtocolError, "control frame in pieces or too long");
    if (opcode == static_cast<int>(Opcode::Binary))
        return error(CloseCode::NotText, "only text is understood");
    if (!control && (opcode == static_cast<int>(Opcode::Continuation)) != m_isFragmented)
        return error(CloseCode::ProtocolError, "fragment out of order");
    return std::nullopt;
}

std::optional<Event> FrameReader::readLength() {
    quint64 length = static_cast<quint64>(byteAt(m_head, 1) & LengthBits);
    quint64 least = 0;
    if (length == TwoByteLength) {
        length = qFromBigEndian<quint16>(m_head.constData() + 2);
        least = TwoByteLength;
    } else if (length == EightByteLength) {
        length = qFromBigEndian<quint64>(m_head.constData() + 2);
        least = 0x10000;
    }
    if (length < least)
        return error(CloseCode::ProtocolError, "length longer than need be");
    if (!isControl() && length > static_cast<quint64>(m_maxMessage - m_message.size()))
        return error(CloseCode::TooLarge, "message too long");
    m_left = static_cast<qint64>(length);
    return std::nullopt;
}

void FrameReader::readPayload(std::string_view& bytes) {
    QByteArray& target = isControl() ? m_control : m_message;
    const char* const mask = m_head.constData() + m_head.size() - MaskSize;
    const int taken = static_cast<int>(std::min(static_cast<qint64>(bytes.size()), m_left));
    const int begin = target.size();
    target.append(bytes.data(), taken);
    char* const payload = target.data() + begin;
    for (int i = 0; i < taken; ++i)
        payload[i] = static_cast<char>(payload[i] ^ mask[(m_maskAt + i) % MaskSize]);
    m_maskAt = (m_maskAt + taken) % MaskSize;
    m_left -= taken;
    bytes.remove_prefix(static_cast<std::size_t>(taken));
}

std::optional<Event> FrameReader::endFrame() {
    if (!isControl()) {
        m_isFragmented = !m_isFinal;
        return m_isFinal ? std::optional(endMessage()) : std::nullopt;
    }
    QByteArray payload;
    payload.swap(m_control);
    switch (m_opcode) {
    case Opcode::Ping:
        return Event{Event::Kind::Ping, payload};
    case Opcode::Pong:
        return Event{Event::Kind::Pong, payload};
    default:
        return payload.size() == 1 ? error(CloseCode::ProtocolError, "close without a code")
                                   : Event{Event::Kind::Close, payload};
    }
}

Event FrameReader::endMessage() {
    QByteArray text;
    text.swap(m_message);
    return isUtf8(text) ? Event{Event::Kind::Text, text} : error(CloseCode::BadText, "text is not UTF-8");
}

} // namespace websocket
