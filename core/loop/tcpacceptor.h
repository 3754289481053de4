#pragma once

#include "core/loop/devicesocket.h"

#include <deque>
#include <memory>
#include <QObject>

class QSocketNotifier;

/// A listening TCP socket for a fleet: takes connections until its queue is empty, a batch a turn of
/// the loop, so that a storm of them neither overflows the queue nor holds up the speakers that are
/// there already. Main loop only.
class TcpAcceptor : public QObject {
    Q_OBJECT
public:
    /// Connections that the kernel may hold for us; beyond it SYNs are dropped and a speaker waits a
    /// second. As much as the kernel grants by default.
    static constexpr int Backlog = 4096;
    /// Connections taken in one turn: some 10 ms.
    static constexpr int BatchSize = 1024;
    /// Descriptors that speakers leave to files, the database and the log, or an eighth of all when these are
    /// few.
    static constexpr int Reserve = 256;

    explicit TcpAcceptor(QObject* parent = nullptr);
    ~TcpAcceptor() override;

    /// Listens at `port` of every address, IPv4 and IPv6; false when it cannot, see errorText().
    bool listen(quint16 port);
    QString errorText() const { return m_error; }
    /// The oldest accepted connection not taken yet, for the caller to own; null when there is none.
    std::unique_ptr<DeviceSocket> nextPendingConnection();

signals:
    void newConnection();
    /// The system refused a connection, mostly for want of descriptors; accepting pauses for a while.
    void acceptError(const QString& reason);

private:
    bool openSocket(int family, quint16 port);
    void acceptBatch();
    bool acceptOne(int usable);
    void pause(int error);

    std::unique_ptr<QSocketNotifier> m_notifier;
    std::deque<std::unique_ptr<DeviceSocket>> m_pending;
    QString m_error;
    int m_descriptor = -1;
};
