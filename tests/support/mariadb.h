#pragma once

#include "support/childprocess.h"
#include "support/service.h"

#include <QTemporaryDir>

/// A MariaDB server of the test's own: own data directory, socket and port. Killed by its process when
/// the object goes.
class MariaDb {
public:
    /// Makes the data directory, which takes a few seconds; start() starts the server.
    MariaDb();
    ~MariaDb();

    /// Starts the server, again after kill() too, and waits until it answers.
    bool start();
    void kill();
    /// The server stops working, its connections stay.
    void suspend();
    void resume();

    /// Makes an empty database and a user for it.
    DatabaseAccess createDatabase(const QString& name);
    /// Runs statements as the server's root; standard output of the client, rows without headings.
    QByteArray sql(const QString& statements);

private:
    bool answers();
    QString file(const char* name) const { return m_directory.filePath(QLatin1String(name)); }

    QTemporaryDir m_directory;
    ChildProcess m_process;
    quint16 m_port;
};
