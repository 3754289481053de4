#pragma once

#include "support/childprocess.h"

#include <QDeadlineTimer>
#include <QString>
#include <QStringList>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>

/// A redis-server of the test's own: free port, own directory, nothing kept on disk unless `options`
/// say so. Stopped by its process when the object goes.
class RedisServer {
public:
    explicit RedisServer(QStringList options = {})
        : m_options(std::move(options)) {
        QTcpServer probe;
        probe.listen(QHostAddress::LocalHost);
        m_port = probe.serverPort();
    }
    ~RedisServer() {
        resume();
        kill();
    }

    quint16 port() const { return m_port; }

    /// Starts the server, again after kill() too, and waits until it answers.
    bool start() {
        m_process.setStandardOutputFile(QProcess::nullDevice());
        m_process.start("redis-server",
                        QStringList{"--port", QString::number(m_port), "--bind", "127.0.0.1", "--dir",
                                    m_directory.path(), "--save", "", "--appendonly", "no"} +
                            m_options);
        return m_process.waitForStarted() && waitForAnswer();
    }
    void kill() {
        if (m_process.state() == QProcess::NotRunning)
            return;
        m_process.kill();
        m_process.waitForFinished();
    }
    /// The server stops reading, its connections stay.
    void suspend() { ::kill(static_cast<pid_t>(m_process.processId()), SIGSTOP); }
    void resume() {
        if (m_process.state() == QProcess::Running)
            ::kill(static_cast<pid_t>(m_process.processId()), SIGCONT);
    }

    /// One command through redis-cli; its answer as plain text without the last line end.
    QByteArray cli(const QStringList& arguments, const QByteArray& input = {}) const {
        QProcess client;
        client.start("redis-cli", QStringList{"-p", QString::number(m_port)} + arguments);
        client.write(input);
        client.closeWriteChannel();
        client.waitForFinished();
        QByteArray answer = client.readAllStandardOutput();
        if (answer.endsWith('\n'))
            answer.chop(1);
        return answer;
    }

private:
    bool waitForAnswer() const {
        for (QDeadlineTimer deadline(10000); !deadline.hasExpired();) {
            QTcpSocket socket;
            socket.connectToHost("127.0.0.1", m_port);
            if (!socket.waitForConnected(100))
                continue;
            socket.write("PING\r\n");
            if (socket.waitForReadyRead(1000))
                return true;
        }
        return false;
    }

    QStringList m_options;
    QTemporaryDir m_directory;
    ChildProcess m_process;
    quint16 m_port = 0;
};
