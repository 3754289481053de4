#pragma once

#include <optional>
#include <QByteArray>
#include <string_view>

/// The frames of WebSocket (RFC 6455) as a server reads and writes them. Pure: no socket, no clock.
namespace websocket {

enum class Opcode { Continuation = 0x0, Text = 0x1, Binary = 0x2, Close = 0x8, Ping = 0x9, Pong = 0xA };

/// RFC 6455, section 7.4.1.
enum class CloseCode {
    Normal = 1000,
    ProtocolError = 1002,
    NotText = 1003,
    BadText = 1007,
    Policy = 1008,
    TooLarge = 1009,
    TryAgain = 1013,
};

/// A whole, unmasked frame, as servers send them.
QByteArray frame(Opcode opcode, const QByteArray& payload);
QByteArray closeFrame(CloseCode code, const QByteArray& reason);

/// What a reader has found.
struct Event {
    enum class Kind {
        None, ///< needs more bytes
        Text, ///< a whole message, valid UTF-8
        Ping,
        Pong,
        Close,
        Error, ///< the connection is to be closed with `code`; the reader takes nothing more
    };
    Kind kind = Kind::None;
    QByteArray payload;
    CloseCode code = CloseCode::Normal;
    const char* reason = "";
};

/// Reads a client's frames from bytes that arrive in any division, and puts fragments together. What is too
/// long is refused as soon as its length is known.
class FrameReader {
public:
    static constexpr int MaxControl = 125; ///< payload of a control frame, RFC 6455, section 5.5

    explicit FrameReader(qint64 maxMessage)
        : m_maxMessage(maxMessage) {}

    /// The next event within `bytes`, from which it takes what it has read; Kind::None when all of them are
    /// taken.
    Event read(std::string_view& bytes);
    /// Memory of the message that has begun.
    qint64 heldBytes() const { return m_message.capacity(); }
    bool isWithinMessage() const { return m_isFragmented || !m_head.isEmpty(); }

private:
    std::optional<Event> readHead(std::string_view& bytes);
    std::optional<Event> checkHead() const;
    std::optional<Event> readLength();
    int headSize() const;
    void readPayload(std::string_view& bytes);
    std::optional<Event> endFrame();
    Event endMessage();
    bool isControl() const { return (static_cast<int>(m_opcode) & 0x8) != 0; }

    const qint64 m_maxMessage;
    QByteArray m_head; ///< of the frame that has begun
    bool m_isHeadRead = false;
    Opcode m_opcode = Opcode::Continuation;
    bool m_isFinal = false;
    qint64 m_left = 0; ///< bytes of its payload that are still to come
    int m_maskAt = 0;
    QByteArray m_control;
    QByteArray m_message;
    bool m_isFragmented = false; ///< a message waits for its continuation
};

} // namespace websocket
