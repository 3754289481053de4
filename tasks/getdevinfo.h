#pragma once

#include <atomic>
#include <QByteArray>
#include <QObject>
#include <QString>
#include <QThreadPool>

/// Asks a node's command server for the list of its speakers. Owner: the node poller. Main loop; the
/// socket is waited for on a thread of its own.
class Getdevinfo : public QObject {
    Q_OBJECT
public:
    explicit Getdevinfo(QObject* parent = nullptr);
    /// Gives up a query under way; waits at most about a second for it.
    ~Getdevinfo() override;

    /// Sends `question`, one command. One query at a time: a call while one is under way does nothing.
    void doit(const QString& address, int port, const QByteArray& question);

signals:
    /// The node's JSON answer; empty when there was none.
    void over(const QByteArray& answer);

private:
    QThreadPool m_thread; ///< one thread
    std::atomic<bool> m_cancelled{false};
    bool m_asking = false;
};
