#pragma once

#include "api/dumpcontroller_add_user.h"
#include "api/guard.h"

// Database kinds that a row is for.
constexpr unsigned Kind0 = 1; ///< SQLite, small installation
constexpr unsigned Kind1 = 2; ///< MySQL
constexpr unsigned Kind3 = 8; ///< SQLite, full installation
constexpr unsigned AnyKind = ~0U;

/// One row of a route table. The path of a request matches when it begins with `prefix`.
struct Route {
    const char* prefix;
    DumpController_add_user::Endpoint handler;
    Guard guard = {};
    unsigned kinds = AnyKind;
    bool appendMethod = false; ///< the method's name follows the reply
};

/// Tables in the order in which they are tested; the first match wins.
const std::vector<Route>& getRoutes();
const std::vector<Route>& postRoutes();

/// The first row that matches; null when none does.
const Route* findRoute(const std::vector<Route>& routes, const QByteArray& path, int kind);
