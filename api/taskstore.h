#pragma once

#include <optional>
#include <QJsonObject>
#include <QList>
#include <QString>

class Call;
class sqlite;
class StrictSql;
struct SqlResult;

// What the endpoints for tasks, plans and temporary plays share. Any thread, on its own database object.

constexpr int MaxTaskLength = 86400; ///< seconds; the shortest is sqlite::Site::tasklenmin

/// A play's length in seconds. Without the parameter "len": as long as the files play, `times` over.
/// nullopt for a length outside the limits.
std::optional<int> playLength(const StrictSql& database, const Call& call, const QList<qint64>& files,
                              int times);

/// The caller's task; no row when it is not his.
SqlResult ownTask(const StrictSql& database, int userid, int taskid);

/// A task's row as clients get it: the columns, and its time and dates as texts.
QJsonObject taskObject(const SqlResult& tasks, int row);

enum class StartRequest { Done, NotOwn, Working, Failed };
/// Asks the task queue to start a task of this account, unless that is asked already or it plays.
/// `info` is the request's origin; one that begins with "Waringstar" plays as an alarm.
StartRequest requestStart(const StrictSql& database, int userid, int taskid, const QString& info);
/// Its reply; `done` is what the good one holds besides the usual.
QByteArray startReply(StartRequest outcome, const QJsonObject& done = {});
