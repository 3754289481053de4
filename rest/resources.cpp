#include "rest/resources.h"

void addResources(RestRoutes& routes) {
    addServiceRoutes(routes);
    addSessionRoutes(routes);
    addTokenRoutes(routes);
    addAccountRoutes(routes);
    addGrantRoutes(routes);
    addAuditRoutes(routes);
}
