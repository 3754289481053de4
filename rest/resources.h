#pragma once

class RestRoutes;

/// Each resource adds its rows to the table; their files are named after them.
void addAboutRoutes(RestRoutes& routes);
void addAccountRoutes(RestRoutes& routes);
void addAnnouncementRoutes(RestRoutes& routes);
void addAuditRoutes(RestRoutes& routes);
void addBroadcastRoutes(RestRoutes& routes);
void addGrantRoutes(RestRoutes& routes);
void addGroupRoutes(RestRoutes& routes);
void addJournalRoutes(RestRoutes& routes);
void addCalendarRoutes(RestRoutes& routes);
void addPlanRoutes(RestRoutes& routes);
void addScheduleRoutes(RestRoutes& routes);
void addSessionRoutes(RestRoutes& routes);
void addSoundRoutes(RestRoutes& routes);
void addSpeakerRoutes(RestRoutes& routes);
void addTokenRoutes(RestRoutes& routes);

/// All of them.
void addResources(RestRoutes& routes);
