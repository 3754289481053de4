#pragma once

#include <QJsonObject>

struct SqlResult;

/// An entry of the journal as the interface tells it, from a row of findEntries() (service/playlog.h).
QJsonObject entryJson(const SqlResult& rows, int row);
