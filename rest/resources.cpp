#include "rest/resources.h"

void addResources(RestRoutes& routes) {
    addAboutRoutes(routes);
    addSessionRoutes(routes);
    addTokenRoutes(routes);
    addAccountRoutes(routes);
    addGrantRoutes(routes);
    addAnnouncementRoutes(routes);
    addAuditRoutes(routes);
    addSpeakerRoutes(routes);
    addGroupRoutes(routes);
    addSoundRoutes(routes);
    addBroadcastRoutes(routes);
    addJournalRoutes(routes);
    addScheduleRoutes(routes);
    addPlanRoutes(routes);
    addCalendarRoutes(routes);
}
