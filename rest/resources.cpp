#include "rest/resources.h"

void addResources(RestRoutes& routes) {
    addSessionRoutes(routes);
    addTokenRoutes(routes);
    addAuditRoutes(routes);
}
