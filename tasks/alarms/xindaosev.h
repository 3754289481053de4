#pragma once

#include <QAbstractSocket>
#include <QByteArray>
#include <QJsonArray>
#include <QJsonObject>
#include <QObject>
#include <QString>
#include <QTcpSocket>
#include <QTimer>

/// Connection to an alarm source: a TCP client that sends and receives one JSON document a line. Main
/// loop only. It tells its end once, by ers(), and is of no use afterwards.
class Xindaosev : public QObject {
    Q_OBJECT
public:
    /// Longest line taken from a source; a report is a few hundred bytes.
    static constexpr int MaxLineBytes = 64 * 1024;
    static constexpr int ConnectMs = 10'000;

    explicit Xindaosev(QObject* parent = nullptr);

    void open(const QString& host, int port);
    /// Sends the document, as soon as the connection stands when it does not yet.
    void send(const QJsonArray& document);
    /// Ends the connection; no signal follows.
    void close();

signals:
    void con();
    void got_data(const QJsonObject& report);
    void ers(const QString& error);

private:
    void connected();
    void readLines();
    void fail(const QString& error);

    QTcpSocket m_socket;
    QTimer m_deadline; ///< for the connection to be made
    QByteArray m_waiting;
    bool m_isOver = false;
};
