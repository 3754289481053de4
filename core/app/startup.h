#pragma once

#include "core/settings.h"

#include <memory>
#include <QJsonArray>
#include <QString>
#include <QTimer>

class Alarmcast;
class AuditKeeper;
class CalendarKeeper;
class ChangeCounter;
class cmdthread6;
class cmdthread;
class EventDesk;
class FrontDoor;
class fuck_redis;
class Gate;
class HttpListener;
class HttpSessionStore;
class Journal;
class LoginBrake;
class JournalLedger;
class LevelStore;
class MainCellInit;
class Orders;
class Passwords;
class QCoreApplication;
class RequestMapper;
class RestRouter;
class sever_listen;
class Severinit;
class SpeakerMirror;
class SpeakerBoard;
class sqlite;
class StaticFileController;
class Task_workque;
class TemplateLoader;
class TokenTable;
class Tokens;

/// Creates and wires the long-lived objects, each once, in the order in which they need each other, and
/// holds them until the process ends (they go in reverse order). Main thread, before the event loop.
class Startup {
public:
    Startup(QCoreApplication* application, Settings settings);
    ~Startup();

    /// Everything that the configuration asks for. A port of speakers or commands that is taken ends
    /// the process; what else can't be had is logged and the service runs with the rest.
    void run();
    /// Stops what plays, at most within two seconds. Once, after the event loop has been left.
    void end();

private:
    void reportAddresses() const;
    void warnOfMissingSecrets() const;
    void connectRedis();
    void createDevices();
    void listenForSpeakers();
    void listenForCommands();
    void openDatabase();
    bool loadStoredSpeakers();
    void awaitDatabase();
    void startJournal();
    void createOrders();
    int nodeNumber() const;
    void createTasks();
    void createAccounts();
    void serveHttp();
    void createRouters();
    void logReady() const;

    QString text(const char* key) const { return m_settings.text(key); }
    int integer(const char* key) const { return m_settings.integer(key); }

    QCoreApplication* m_application;
    const Settings m_settings;

    // In the order of their making; destroyed from the last to the first.
    std::unique_ptr<fuck_redis> m_redis; ///< null with Redis disabled
    std::unique_ptr<Severinit> m_devices;
    std::unique_ptr<SpeakerMirror> m_mirror; ///< null with Redis disabled
    std::unique_ptr<SpeakerBoard> m_board;
    std::unique_ptr<Gate> m_gate;
    std::unique_ptr<sever_listen> m_speakerListener;
    std::unique_ptr<cmdthread> m_commands;
    std::unique_ptr<cmdthread6> m_commands6;
    std::unique_ptr<Alarmcast> m_alarms;
    std::unique_ptr<sqlite> m_database;      ///< this and what follows: null in media-only mode
    QTimer m_databaseTimer;                  ///< while its speakers have not been read
    std::unique_ptr<Journal> m_journal;      ///< null when it is switched off
    std::unique_ptr<AuditKeeper> m_audit;    ///< null with `auditdays` 0
    std::unique_ptr<JournalLedger> m_ledger; ///< this and the next two: null without a journal
    std::unique_ptr<LevelStore> m_levels;
    std::unique_ptr<Orders> m_orders;
    std::unique_ptr<CalendarKeeper> m_calendars; ///< null unless the database's kind has tasks
    std::unique_ptr<Task_workque> m_tasks;       ///< likewise
    std::unique_ptr<HttpSessionStore> m_sessions;
    std::unique_ptr<StaticFileController> m_files;
    std::unique_ptr<TemplateLoader> m_templates;
    std::unique_ptr<Passwords> m_passwords;
    std::unique_ptr<Tokens> m_tokens;
    std::unique_ptr<TokenTable> m_oldTokens;
    std::unique_ptr<LoginBrake> m_loginBrake;
    std::unique_ptr<ChangeCounter> m_changes;
    std::unique_ptr<RequestMapper> m_router;
    std::unique_ptr<RestRouter> m_restRouter;
    std::unique_ptr<FrontDoor> m_frontDoor;
    std::unique_ptr<EventDesk> m_events;
    std::unique_ptr<MainCellInit> m_front; ///< made before the router, ends before it
    std::unique_ptr<HttpListener> m_http;
};
