#pragma once

#include <QByteArray>
#include <QObject>
#include <QString>

class Gate;

/// Asks a node for the list of its speakers. Owner: the node poller. Main loop.
class Getdevinfo : public QObject {
    Q_OBJECT
public:
    explicit Getdevinfo(Gate* gate, QObject* parent = nullptr);

    /// Sends `question`, one command. One query at a time: a call while one is under way does nothing.
    void doit(const QString& address, int port, const QByteArray& question);

signals:
    /// The node's JSON answer; empty when there was none.
    void over(const QByteArray& answer);

private:
    Gate* m_gate;
    bool m_asking = false;
};
