#include "rest/resources.h"

void addResources(RestRoutes& routes) {
    addSessionRoutes(routes);
    addTokenRoutes(routes);
    addAccountRoutes(routes);
    addGrantRoutes(routes);
    addAuditRoutes(routes);
    addBroadcastRoutes(routes);
    addJournalRoutes(routes);
}
