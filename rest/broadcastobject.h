#pragma once

#include "journal/journal.h"

#include <QJsonObject>

/// A broadcast as clients get it.
QJsonObject broadcastObject(const Journal::Standing& standing);
