#include "core/app/startup.h"

#include "api/requestmapper.h"
#include "core/app/frontdoor.h"
#include "core/app/journalledger.h"
#include "core/app/site.h"
#include "core/sql/migrations.h"
#include "core/sql/sqlite.h"
#include "device/commandserver.h"
#include "device/sever_listen.h"
#include "device/severinit.h"
#include "fronts/events/eventdesk.h"
#include "fronts/maincellinit.h"
#include "http/httplistener.h"
#include "http/httpsessionstore.h"
#include "http/staticfilecontroller.h"
#include "http/templateloader.h"
#include "journal/journal.h"
#include "nodes/gate.h"
#include "orders/levelstore.h"
#include "orders/orders.h"
#include "redis/fuck_redis.h"
#include "redis/speakermirror.h"
#include "rest/restrouter.h"
#include "service/auditkeeper.h"
#include "service/calendarkeeper.h"
#include "service/changecounter.h"
#include "service/filestore.h"
#include "service/loginbrake.h"
#include "service/passwords.h"
#include "service/schedules.h"
#include "service/speakerboard.h"
#include "service/speakercommands.h"
#include "service/tokens.h"
#include "service/tokentable.h"
#include "tasks/alarms/alarmcast.h"
#include "tasks/task_workque.h"

#include <chrono>
#include <cstdlib>
#include <QCoreApplication>
#include <QDebug>
#include <QFile>
#include <QHostAddress>
#include <QJsonObject>
#include <QNetworkInterface>
#include <QSqlDatabase>

namespace {

// Key material is the key's text or, when that is empty, the file of that name in the working directory.
QString keyMaterial(const Settings& settings, const char* key, const QString& fileName) {
    constexpr qint64 MaxKeyFile = 64 * 1024; // far above any key, so that a wrong file is not swallowed
    QString text = settings.text(key);
    QFile file(fileName);
    if (!text.isEmpty() || !file.open(QIODevice::ReadOnly))
        return text;
    return QString::fromUtf8(file.read(MaxKeyFile));
}

// This node's entry in the list of nodes.
QJsonArray nodeList(const Settings& settings) {
    return {QJsonObject{{QStringLiteral("nodeip"), settings.text("LocalIP")},
                        {QStringLiteral("nodeport3"), settings.integer("PS2")},
                        {QStringLiteral("nocdn"), settings.flag("nocdn")}}};
}

// Without its command servers nothing could ask the service for anything: who starts it shall hear so.
[[noreturn]] void exitForPort(const char* key, int port, const CommandServer& server) {
    qCritical().noquote() << "no command server," << key << "port" << port << server.errorString();
    std::exit(EXIT_FAILURE);
}

QStringList hostList(const QString& hosts) {
    QStringList list;
    const QStringList entries = hosts.split(QLatin1Char(','), Qt::SkipEmptyParts);
    for (const QString& host : entries)
        list.append(host.trimmed());
    return list;
}

QStringList serialsOf(const SqlResult& result, const char* column) {
    QStringList serials;
    serials.reserve(result.rows.size());
    for (int row = 0; row < result.rows.size(); ++row)
        serials.append(result.text(row, column));
    return serials;
}

Journal::Bell bellOf(const BellOutcome& outcome) {
    using State = BellOutcome::State;
    Journal::Bell bell;
    bell.schedule = outcome.schedule;
    bell.name = outcome.name;
    bell.due = outcome.due * 1000;
    bell.outcome = outcome.state == State::Played ? Journal::Bell::Outcome::Played
                   : outcome.state == State::Late ? Journal::Bell::Outcome::Late
                                                  : Journal::Bell::Outcome::Skipped;
    bell.reason = outcome.reason;
    bell.account = outcome.userid;
    bell.broadcast = outcome.broadcast;
    bell.late = outcome.late * 1000;
    return bell;
}

} // namespace

Startup::Startup(QCoreApplication* application, Settings settings)
    : m_application(application)
    , m_settings(std::move(settings)) {}

Startup::~Startup() = default;

void Startup::run() {
    reportAddresses();
    warnOfMissingSecrets();
    connectRedis();
    createDevices();
    listenForSpeakers();
    listenForCommands();
    if (!m_settings.flag("isonly_media")) {
        openDatabase();
        startJournal();
        createOrders();
        createTasks();
        createAccounts();
        serveHttp();
        qDebug() << QSqlDatabase::drivers();
    }
    logReady();
}

void Startup::end() {
    constexpr std::chrono::seconds limit{2};
    if (m_tasks)
        m_tasks->end(limit);
    if (m_journal)
        m_journal->note(Journal::NoteKind::Service, QStringLiteral("ended"),
                        QStringLiteral("speakerd " SPEAKERD_VERSION));
}

// What anybody who reaches the ports may do as long as a secret is missing.
void Startup::warnOfMissingSecrets() const {
    if (text("ASKEY").isEmpty())
        qWarning("ASKEY is empty: requests that need the service key are all refused");
    if (text("PayKey").isEmpty())
        qWarning("PayKey is empty: anybody can renew a speaker's service period");
}

// Without an address of its own the service goes on; only what carries the address suffers.
void Startup::reportAddresses() const {
    const bool detected = m_settings.flag("ISLOCALHOST");
    if (!m_settings.hasLocalIp())
        qDebug() << "LocalIP Error";
    if (detected)
        qDebug().noquote() << "ISLOCALHOST::>>>" << m_settings.lanAddress();
    // The key is a secret: the log only tells whether there is one.
    const char* const key = text("askey").isEmpty() ? "(no key)" : "(key)";
    qDebug().noquote() << text("Meida_ip") << integer("wbport") << key << integer("Meida_port");
    if (detected)
        qDebug().noquote() << "localcdn::>>>" << text("localcdn");
}

void Startup::connectRedis() {
    if (!m_settings.flag("EnableRedis"))
        return;
    m_redis = std::make_unique<fuck_redis>();
    m_redis->serverAddress = text("LocalIP");
}

void Startup::createDevices() {
    m_devices = std::make_unique<Severinit>(
        text("snupdatareload"), text("upstreamcdn"), text("localcdn"),
        keyMaterial(m_settings, "pvkey", QStringLiteral("pvkey.pem")),
        keyMaterial(m_settings, "pukey", QStringLiteral("pukey.pem")), text("key"), text("ASKEY"),
        integer("TSWait"), integer("PackSize"), integer("AryLen"), integer("Check_"), integer("Check_len"),
        text("LocalIP"), integer("OPort0"), integer("OPort1"), integer("BjPort"), integer("DataPort"),
        integer("ManagePort"), integer("Netcross_Port0"), integer("Netcross_Port1"), integer("DataPortBack2"),
        integer("Pastcmd"));
    m_devices->bitrate = integer("bitrate");
    m_devices->setCommandGap(std::chrono::milliseconds(integer("cmdgap")));
    m_devices->setStopsFirst(m_settings.flag("stopsfirst"));
    if (m_redis) {
        m_devices->setGroupReader([this](const QString& group) { return m_redis->backsnlist(group); });
        m_mirror = std::make_unique<SpeakerMirror>(*m_devices, *m_redis);
        QObject::connect(m_redis.get(), &fuck_redis::restored, m_mirror.get(), &SpeakerMirror::remirror);
        m_redis->try_connect(text("RedisIP"), integer("RedisPort"), text("RedisAUTH"));
    }
    m_devices->init_vison();
    m_board = std::make_unique<SpeakerBoard>(m_devices.get());
    m_gate =
        std::make_unique<Gate>(m_devices.get(), text("LocalIP"), QList<int>{integer("PS1"), integer("PS2")});
}

void Startup::listenForSpeakers() {
    m_speakerListener =
        std::make_unique<sever_listen>(integer("TSWait"), integer("DPort"), integer("DataPortBack3"));
    m_speakerListener->setKeepBound(m_settings.flag("keepbound"));
    m_speakerListener->set_svi(m_devices.get());
    m_devices->init_redis();
    m_devices->ps2 = integer("PS2");
}

void Startup::listenForCommands() {
    AddressFilter filter = AddressFilter::parse(text("cmdallow"));
    filter.allow(QNetworkInterface::allAddresses()); // whoever commands from this machine, by any of them
    m_commands = std::make_unique<cmdthread>(integer("PS1"));
    m_commands->setFilter(filter);
    m_commands6 = std::make_unique<cmdthread6>(integer("PS2"));
    m_commands6->setFilter(filter);
    if (!m_commands->init(m_devices.get()))
        exitForPort("PS1", integer("PS1"), *m_commands);
    if (!m_commands6->init(m_devices.get()))
        exitForPort("PS2", integer("PS2"), *m_commands6);
    m_alarms = std::make_unique<Alarmcast>(m_devices.get(), text("runingdir"));
}

void Startup::openDatabase() {
    qDebug().noquote() << text("preurl");
    m_database = std::make_unique<sqlite>(text("task_ip"), integer("sqltask_port"), text("task_username"),
                                          text("task_passwd"), text("basename"), integer("dbk"));
    m_database->init();
    m_database->site = siteOf(m_settings);
    qDebug().noquote() << (m_database->get_is_aready() ? "true" : "false");
    if (!loadStoredSpeakers())
        awaitDatabase();
}

// Every speaker that an account owns has a session from the start; one whose service period ran out or that
// somebody has disabled for good starts disabled.
bool Startup::loadStoredSpeakers() {
    QString why;
    if (!migrateSchema(*m_database, why))
        return false;
    const auto stored = m_database->run(QStringLiteral("SELECT device_seed FROM sbox_device_info ;"));
    const auto expired = m_database->run(QStringLiteral("SELECT sn FROM snover where ( `statu` = 2 ) ;"));
    if (!stored.ok)
        return false;
    const QStringList restricted = serialsOf(expired, "sn") + disabledSpeakers(*m_database);
    m_devices->setStoredSerials(serialsOf(stored, "device_seed"), restricted);
    m_devices->init_vison();
    for (const QString& sn : restricted)
        m_devices->setRestricted(sn, true);
    return true;
}

void Startup::awaitDatabase() {
    constexpr std::chrono::seconds Pause{1};
    QObject::connect(&m_databaseTimer, &QTimer::timeout, [this] {
        if (!loadStoredSpeakers())
            return;
        m_databaseTimer.stop();
        if (m_orders)
            m_orders->restore(LevelStore::load(*m_database));
        qInfo() << "database: ready";
    });
    m_databaseTimer.start(Pause);
}

void Startup::startJournal() {
    if (!m_settings.flag("journal"))
        return;
    m_journal = std::make_unique<Journal>(m_devices.get(), m_database.get(), nodeNumber(),
                                          Journal::Limits{integer("journaldays"), integer("receiptdays")});
    m_alarms->setJournal(m_journal.get());
    QObject::connect(m_journal.get(), &Journal::heard, m_board.get(), &SpeakerBoard::setPlaying);
    QObject::connect(m_journal.get(), &Journal::healthChanged, m_board.get(),
                     [this](const QString& sn, SpeakerHealth health) {
                         m_board->setHealth(sn, health == SpeakerHealth::Flaky ? SpeakerState::Health::Flaky
                                                : health == SpeakerHealth::Silent
                                                    ? SpeakerState::Health::Silent
                                                    : SpeakerState::Health::Ok);
                     });
    const auto note = [this](Journal::NoteKind kind, const char* state, const char* name) {
        m_journal->note(kind, QLatin1String(state), QLatin1String(name));
    };
    note(Journal::NoteKind::Service, "started", "speakerd " SPEAKERD_VERSION);
    if (!m_redis)
        return;
    QObject::connect(m_redis.get(), &fuck_redis::lost, m_journal.get(),
                     [note] { note(Journal::NoteKind::Link, "lost", "redis"); });
    QObject::connect(m_redis.get(), &fuck_redis::restored, m_journal.get(),
                     [note] { note(Journal::NoteKind::Link, "back", "redis"); });
}

// What was left to be put back by an earlier run comes with the database.
void Startup::createOrders() {
    if (!m_journal)
        return;
    m_ledger = std::make_unique<JournalLedger>(*m_journal);
    m_levels = std::make_unique<LevelStore>(*m_database);
    const NodeAddress here{QStringLiteral("127.0.0.1"), integer("PS2")};
    m_orders =
        std::make_unique<Orders>(m_devices.get(), *m_ledger, m_levels.get(),
                                 [this, here](const QByteArray& command) { m_gate->run(here, command); });
    m_orders->setFilePrefix(text("preurl"));
    m_alarms->setOrders(m_orders.get());
    if (!m_databaseTimer.isActive())
        m_orders->restore(LevelStore::load(*m_database));
}

// Of nodes in one network of 256 addresses, or on one machine with ports one after the other, each has
// another.
int Startup::nodeNumber() const {
    constexpr int most = 255;
    const int given = integer("nodenumber");
    if (given >= 1 && given <= most)
        return given;
    const quint32 address = QHostAddress(text("LocalIP")).toIPv4Address();
    return static_cast<int>((address + static_cast<quint32>(integer("PS2"))) & most);
}

void Startup::createTasks() {
    const int kind = integer("dbk");
    if (!m_database->get_is_aready())
        qDebug() << "db init error";
    if (kind != 1 && kind != 3)
        return;
    m_tasks = std::make_unique<Task_workque>(
        m_devices.get(), integer("DPort"), integer("DataPort"), integer("PS1"), text("src_ipstr"),
        text("cdn_str"), nodeList(m_settings), m_application, text("Meida_ip"), integer("PS2"),
        text("task_username"), text("task_passwd"), text("basename"), m_database.get(), integer("sqltaskid"),
        kind, integer("taskstart"), integer("taskend"), nullptr,
        Nodeque::Relay{m_gate.get(), std::chrono::milliseconds(integer("relaypause")), m_journal.get()});
    if (m_journal)
        m_tasks->setBellSink([this](const BellOutcome& bell) { m_journal->bell(bellOf(bell)); });
    m_tasks->setRingsAfterGap(text("gapbells") == QLatin1String("after"));
    m_tasks->setResolver([this](int userid, bool everyone, const QList<qint64>& groups) {
        return speakersOf(*m_database, userid, {everyone, {}, groups});
    });
    m_calendars = std::make_unique<CalendarKeeper>(m_database.get());
}

void Startup::serveHttp() {
    m_sessions = std::make_unique<HttpSessionStore>(SessionStoreSettings::of(m_settings));
    m_files = std::make_unique<StaticFileController>(DocrootSettings::of(m_settings));
    m_files->setUploads(FileStore::uploadPaths());
    m_templates = std::make_unique<TemplateLoader>(TemplateSettings::of(m_settings));
    const char* const key = text("ASKEY").isEmpty() ? "(no key)" : "(key)";
    qDebug().noquote() << text("Meida_ip") << integer("Meida_port") << integer("wbport") << key;
    qDebug().noquote() << "warningurl" << m_database->site.warningurl;
    qDebug().noquote() << "preurl" << m_database->site.preurl;

    m_front = std::make_unique<MainCellInit>(nullptr, text("ASKEY"), integer("Meida_port"), integer("wbport"),
                                             text("Meida_ip"));
    createRouters();
    m_front->setOrigins(text("weborigins"));
    m_front->setEvents(m_events.get());
    m_front->setRouter(m_router.get());

    m_http = std::make_unique<HttpListener>(m_database.get(), HttpListenerSettings::of(m_settings),
                                            m_frontDoor.get());
    m_http->setStaticFiles(m_files.get());
    m_http->listen();
}

void Startup::createAccounts() {
    m_passwords = std::make_unique<Passwords>(m_settings.flag("hashpasswords"));
    m_tokens = std::make_unique<Tokens>(std::chrono::hours(24) * qMax(1, integer("tokendays")));
    m_oldTokens = std::make_unique<TokenTable>();
    m_loginBrake = std::make_unique<LoginBrake>();
    m_changes = std::make_unique<ChangeCounter>();
    if (const int days = integer("auditdays"); days > 0)
        m_audit = std::make_unique<AuditKeeper>(m_database.get(), days);
}

void Startup::createRouters() {
    m_router = std::make_unique<RequestMapper>(m_application, integer("RDDATAPORT"), text("Meida_ip"),
                                               m_database.get(), m_devices.get(), m_tasks.get());
    m_router->setTemplates(m_templates.get());
    m_router->setGate(m_gate.get());
    m_router->setJournal(m_journal.get());
    m_router->setAccounts(m_oldTokens.get(), m_passwords.get(), m_tokens.get());
    Services services;
    services.database = m_database.get();
    services.devices = m_devices.get();
    services.board = m_board.get();
    services.gate = m_gate.get();
    services.journal = m_journal.get();
    services.orders = m_orders.get();
    services.tasks = m_tasks.get();
    services.passwords = m_passwords.get();
    services.tokens = m_tokens.get();
    services.oldTokens = m_oldTokens.get();
    services.loginBrake = m_loginBrake.get();
    services.webSocketPort = integer("wbport");
    services.changes = m_changes.get();
    m_router->setChanges(m_changes.get());
    m_events = std::make_unique<EventDesk>(services);
    m_restRouter = std::make_unique<RestRouter>(services, hostList(text("weborigins")));
    m_frontDoor = std::make_unique<FrontDoor>(m_restRouter.get(), m_router.get());
}

// The one line that scripts wait for; ports as they were bound, and what is still to come.
void Startup::logReady() const {
    QString line = QStringLiteral("speakerd ready: devices %1/%2, commands %3/%4")
                       .arg(integer("DPort"))
                       .arg(integer("DataPortBack3"))
                       .arg(m_commands->serverPort())
                       .arg(m_commands6->serverPort());
    if (m_http)
        line += QStringLiteral(", http %1").arg(m_http->serverPort());
    if (m_front && m_front->serverPort() > 0)
        line += QStringLiteral(", websocket %1").arg(m_front->serverPort());
    QStringList missing;
    if (m_databaseTimer.isActive())
        missing += QStringLiteral("database");
    if (m_tasks && !m_tasks->isReady())
        missing += QStringLiteral("task queue");
    if (!missing.isEmpty())
        line += QStringLiteral(", without ") + missing.join(QStringLiteral(" and "));
    qInfo().noquote() << line;
}
