#pragma once

#include "api/dumpcontroller_add_user.h"

#include <variant>
#include <vector>

/// What answers a route: an endpoint, or a fixed body.
using Handler =
    std::variant<std::monostate, DumpController_add_user::Endpoint, DumpController_add_user::UploadEndpoint,
                 DumpController_add_user::PathEndpoint, const char*>;

/// One row of a route table. The path of a request matches when it begins with `prefix`.
struct Route {
    const char* prefix;
    Handler handler;           ///< for every database kind that has no handler of its own here
    Handler kind0 = {};        ///< SQLite, small installation
    Handler kind1 = {};        ///< MySQL
    Handler kind3 = {};        ///< SQLite, full installation
    bool appendMethod = false; ///< the method's name follows the reply
};

/// Tables in the order in which they are tested; the first match wins.
const std::vector<Route>& getRoutes();
const std::vector<Route>& postRoutes();

/// The first row that matches; null when none does.
const Route* findRoute(const std::vector<Route>& routes, const QByteArray& path);
/// The row's handler for a database kind.
const Handler& handlerFor(const Route& route, int kind);
