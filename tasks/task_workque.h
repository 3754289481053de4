#pragma once

#include <QJsonArray>
#include <QObject>
#include <QString>

class QCoreApplication;
class Severinit;
class sqlite;

/// The scheduler of play tasks: reads due tasks and requests from the database once a second and
/// hands each started task to the poller of its node. Owner: start-up. Main loop only.
class Task_workque : public QObject {
    Q_OBJECT
public:
    Task_workque(Severinit* devices, int DPort, int DataPort, int PS1, QString src_ipstr, QString cdn_str,
                 QJsonArray nodeList, QCoreApplication* application, QString Meida_ip, int PS2,
                 QString task_username, QString task_passwd, QString basename, sqlite* database,
                 int sqltaskid, int mode, int taskstart, int taskend, QObject* parent = nullptr);
};
