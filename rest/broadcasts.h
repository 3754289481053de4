#pragma once

#include <QJsonObject>

struct SqlResult;

/// A broadcast as the interface tells it, from a row of findBroadcasts() (service/playlog.h).
QJsonObject broadcastJson(const SqlResult& rows, int row);
