#pragma once

#include "core/sql/sqltext.h"

#include <QString>
#include <QStringList>

/// The statements of a script, in order, without their closing ";" and without comments around them.
/// A ";" inside quotes, comments or the BEGIN … END body of a trigger separates nothing. The body of a
/// trigger ends at an END that is directly followed by ";".
QStringList splitSqlScript(const QString& script, SqlDialect dialect);
