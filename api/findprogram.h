#pragma once

#include "api/call.h"

#include <optional>

class sqlite;

/// Runs "node find.js" in the directory `programdir` of the database's site settings: the
/// connection's settings and the request path in its environment, the parameters as one JSON object
/// on its standard input. Returns its standard output, nothing when it failed or took longer than
/// 20 s. Any thread that may block.
std::optional<QByteArray> runFindProgram(const sqlite& database, const QString& path, const Params& params);
