#pragma once

#include "nodes/nodeaddress.h"

#include <atomic>
#include <chrono>
#include <QByteArray>
#include <QObject>
#include <QTcpSocket>
#include <QTimer>

/// One request over a fresh TCP connection to a node's command server, without holding up the thread that
/// it lives in. Tells over() once; not at all when its parent goes first.
class NodeCall : public QObject {
    Q_OBJECT
public:
    enum class Outcome {
        Answered, ///< `answer` is what stood before "\r\n"
        Sent,     ///< written whole; no answer, or nobody has read it
        NotConnected,
        Failed, ///< connected, but not written or answered whole in time; `error` says which
    };
    struct Result {
        Outcome outcome = Outcome::NotConnected;
        QByteArray answer;
        QString error;
        bool isLost() const { return outcome == Outcome::NotConnected || outcome == Outcome::Failed; }
    };
    struct Limits {
        std::chrono::milliseconds connect{100};
        std::chrono::milliseconds answer{30000};      ///< to be written and answered
        const std::atomic<bool>* cancelled = nullptr; ///< for who waits; looked at ten times a second
    };
    /// The longest answer is a LIST of 20,000 speakers, about 5 MB.
    static constexpr int MaxAnswerBytes = 64 * 1024 * 1024;

    NodeCall(const NodeAddress& node, const QByteArray& payload, const Limits& limits, QObject* parent);
    void start();
    /// Over once the request is written.
    void leaveAnswer() { m_readsAnswer = false; }
    bool isWritten() const { return m_isWritten; }

    /// A frame: the payload's length in decimal, one line feed and the payload.
    static QByteArray frame(const QByteArray& payload);

signals:
    void written();
    void over(const NodeCall::Result& result);

private:
    void write();
    void noteWritten();
    void read();
    void endWaiting();
    void fail(const QString& error);
    void finish(const Result& result);

    const NodeAddress m_node;
    const QByteArray m_frame;
    const Limits m_limits;
    QTcpSocket m_socket;
    QTimer m_limit;
    bool m_readsAnswer = true;
    bool m_isConnected = false;
    bool m_isWritten = false;
    bool m_isOver = false;
    QByteArray m_answer;
};
