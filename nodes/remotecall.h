#pragma once

#include "nodes/nodecall.h"

#include <functional>
#include <QObject>
#include <QTcpSocket>
#include <QTimer>

/// NodeCall's work for the main loop, which it never holds up. Lives until it has its result, which is
/// told once; not at all when the parent goes first.
class RemoteCall : public QObject {
    Q_OBJECT
public:
    using Done = std::function<void(const NodeCall::Result&)>;
    RemoteCall(const NodeAddress& node, const QByteArray& payload, bool waitForAnswer,
               const NodeCall::Limits& limits, Done done, QObject* parent);

private:
    void write();
    void read();
    void finish(const NodeCall::Result& result);
    void fail();

    const QByteArray m_frame;
    const bool m_waitForAnswer;
    const NodeCall::Limits m_limits;
    Done m_done;
    QTcpSocket m_socket;
    QTimer m_limit;
    bool m_isConnected = false;
    QByteArray m_answer;
};
