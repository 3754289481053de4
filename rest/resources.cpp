#include "rest/resources.h"

void addResources(RestRoutes& routes) {
    addSessionRoutes(routes);
    addTokenRoutes(routes);
    addAnnouncementRoutes(routes);
    addAuditRoutes(routes);
    addSpeakerRoutes(routes);
    addGroupRoutes(routes);
    addSoundRoutes(routes);
}
