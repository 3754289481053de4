#include "core/settings.h"

#include <algorithm>
#include <climits>
#include <QDebug>
#include <QFileInfo>
#include <QHostAddress>
#include <QNetworkInterface>
#include <QSettings>

namespace {

using Type = SettingKey::Type;

// Host name of the defaults; inside `preurl` it stands for the LAN address, as "FUCKHOST" does.
constexpr auto BuiltInHost = "127.0.0.1";

const std::vector<SettingKey> Keys = {
    {"Settings", "wbport", Type::Integer, "0", "Listening port of the WebSocket front; 0 keeps it closed."},
    {"Settings", "Meida_ip", Type::Text, "",
     "Media address told to WebSocket clients that ask for /media; with ISLOCALHOST the LAN address."},
    {"Settings", "askey", Type::Text, "", "No effect: ASKEY is the key."},
    {"Settings", "Meida_port", Type::Integer, "0",
     "Media port told to WebSocket clients that ask for /media."},
    {"Settings", "ISLOCALHOST", Type::Flag, "false",
     "The detected LAN address replaces Meida_ip, LocalIP and the host part of preurl."},
    {"Settings", "locipsss", Type::Text, "",
     "Used instead of the detected LAN address. Default: the detected LAN address."},
    {"Settings", "LocalIP", Type::Text, "",
     "This server's own address as told to speakers, peers and in URLs. Must be present."},
    {"Settings", "DPort", Type::Integer, "3333",
     "TCP port of the speakers' control connections; their MP3 data port is this one plus 2."},
    {"Settings", "PackSize", Type::Integer, "2048",
     "Audio packet size, bytes; AryLen such packets may wait unsent for a Wi-Fi speaker, at most 256 kB."},
    {"Settings", "AryLen", Type::Integer, "20",
     "Audio packets that wait for a speaker at most, up to 1000; one more and all that wait are dropped."},
    {"Settings", "Check_", Type::Integer, "3000", "No effect yet: speaker check interval, ms."},
    {"Settings", "Check_len", Type::Integer, "10", "No effect yet: speaker checks before it counts as gone."},
    {"Settings", "TSWait", Type::Integer, "3000",
     "No effect yet: wait of the device registry and the control listener, ms."},
    {"Settings", "OPort0", Type::Integer, "6001", "No effect yet: output port 0 of the device registry."},
    {"Settings", "OPort1", Type::Integer, "6001", "No effect yet: output port 1 of the device registry."},
    {"Settings", "DataPort", Type::Integer, "6002",
     "Told to others in this node's row of the node table; nothing listens there."},
    {"Settings", "DataPortBack2", Type::Integer, "7681",
     "No effect yet: second data port of the device registry."},
    {"Settings", "DataPortBack3", Type::Integer, "7682",
     "Second TCP port of the speakers' control connections."},
    {"Settings", "Pastcmd", Type::Integer, "6008",
     "No effect yet: relay command port of the device registry."},
    {"Settings", "BjPort", Type::Integer, "6004", "No effect yet: alarm port of the device registry."},
    {"Settings", "PS1", Type::Integer, "6003", "TCP port of the first command server."},
    {"Settings", "PS2", Type::Integer, "6006",
     "TCP port of the second command server (IPv6 and IPv4), announced to other nodes as nodeport3."},
    {"Settings", "bitrate", Type::Integer, "128", "MP3 bit rate, kbit/s."},
    {"Settings", "ManagePort", Type::Integer, "6007",
     "No effect yet: management port of the device registry."},
    {"Settings", "ASKEY", Type::Text, "",
     "Service key. While it is empty every request that needs it is refused."},
    {"Settings", "ttsxfAPPID", Type::Text, "none", "Application id at the text-to-speech service."},
    {"Settings", "ttsxfAPISecret", Type::Text, "none", "Secret of the text-to-speech service."},
    {"Settings", "ttsxfAPIKey", Type::Text, "none", "Key of the text-to-speech service."},
    {"Settings", "upstreamcdn", Type::Text, BuiltInHost,
     "No effect yet: upstream CDN host of the device registry."},
    {"Settings", "localcdn", Type::Text, "",
     "No effect yet: local CDN host of the device registry. Default: the LAN address and \":8080\"."},
    {"Settings", "pvkey", Type::Text, "", "No effect yet: private key material of the licence check."},
    {"Settings", "pukey", Type::Text, "", "No effect yet: public key material of the licence check."},
    {"Settings", "key", Type::Text, "", "No effect yet: key of the licence check."},
    {"Settings", "RedisIP", Type::Text, BuiltInHost, "Redis server address."},
    {"Settings", "RedisAUTH", Type::Text, "", "Redis password; empty: none is sent."},
    {"Settings", "RedisPort", Type::Integer, "6379", "Redis server port."},
    {"Settings", "EnableRedis", Type::Flag, "false", "Mirror the speakers' state into Redis."},
    {"Settings", "isonly_media", Type::Flag, "false",
     "Media-only mode: speakers and command servers, no database, tasks, HTTP or WebSocket."},
    {"Settings", "Netcross_Port0", Type::Integer, "6000",
     "No effect yet: cross-network port 0 of the device registry."},
    {"Settings", "Netcross_Port1", Type::Integer, "6001",
     "No effect yet: cross-network port 1 of the device registry."},
    {"Settings", "tasklenmin", Type::Integer, "10", "Shortest task, seconds."},
    {"Settings", "snupdatareload", Type::Text, "./snupdatareload.json",
     "No effect yet: firmware update list."},
    {"Settings", "task_ip", Type::Text, BuiltInHost, "Database server (dbk 1)."},
    {"Settings", "nocdn", Type::Flag, "true", "No-CDN switch of this node, published in the node list."},
    {"Settings", "sqltask_port", Type::Integer, "3306", "Port of the database server (dbk 1)."},
    {"Settings", "dbk", Type::Integer, "0",
     "Database: 0 SQLite without tasks, 1 MySQL, 3 SQLite with tasks."},
    {"Settings", "task_username", Type::Text, "ipspeaker", "Database user (dbk 1)."},
    {"Settings", "task_passwd", Type::Text, "", "Database password (dbk 1)."},
    {"Settings", "cdn_str", Type::Text, BuiltInHost, "CDN host of the task queue."},
    {"Settings", "src_ipstr", Type::Text, "127.0.0.1:10080", "Source server of the task queue."},
    {"Settings", "basename", Type::Text, "ipspeaker", "Database name (dbk 1)."},
    {"Settings", "preurl", Type::Text, "http://127.0.0.1:12080/",
     "Public URL prefix of this server's files; ends in \"/\". With ISLOCALHOST the LAN address replaces "
     "127.0.0.1 and FUCKHOST in it."},
    {"Settings", "wxcxpreurl", Type::Text, "http://127.0.0.1:12080/", "URL prefix for the mini-program."},
    {"Settings", "sqltaskid", Type::Integer, "1000", "No effect yet: first task number of the task queue."},
    {"Settings", "taskstart", Type::Integer, "21276",
     "No task starts before this time of day, seconds since midnight."},
    {"Settings", "taskend", Type::Integer, "82800",
     "No task starts after this time of day, seconds since midnight."},
    {"Settings", "gapbells", Type::Text, "skip",
     "What a task does whose time the clock leaves out when summer time begins: \"skip\", or \"after\": it "
     "rings "
     "at the first second after the gap."},
    {"Settings", "RDDATAPORT", Type::Integer, "7636",
     "No effect yet: port handed to the HTTP request router."},
    {"Settings", "runingdir", Type::Text, ".", "Working directory for files."},
    {"Settings", "warningableurl", Type::Text, "http://127.0.0.1:12080/", "No effect yet."},
    {"Settings", "cmdallow", Type::Text, "",
     "Addresses and subnets that may use the command servers, separated by commas; this machine always may. "
     "Empty: everybody."},
    {"Settings", "PayKey", Type::Text, "",
     "When not empty, payments must carry it in \"sskey\". Set it: without it anybody can renew a speaker."},
    {"Settings", "programdir", Type::Text, "",
     "Directory of find.js and tts.js. Default: \"programs\" below runingdir."},
    {"Settings", "waringdir", Type::Text, "/var/waring",
     "Directory of the bindings of alarm lines to tasks."},
    {"Settings", "waringfetch", Type::Text, "",
     "Address prefix of the alarm-text fetch. Default: this server's HTTP address and "
     "\"user/fucktext?t=\"."},
    {"Settings", "silentclip", Type::Text, "",
     "Address of the silent clip that ends an alarm. Default: preurl and \"mp3/silence.mp3\"."},
    {"Settings", "cmdgap", Type::Integer, "60",
     "Pause between two commands to one speaker, ms: a speaker tells commands apart by its reads. 0: none."},
    {"Settings", "stopsfirst", Type::Flag, "false",
     "A stop drops the plays that still wait for that pause and goes before what else does."},
    {"Settings", "relaypause", Type::Integer, "100",
     "Pause between two commands of tasks to one node, ms. 0, the fast way: none."},
    {"Settings", "journal", Type::Flag, "true",
     "What was played where is recorded in the database (docs/journal.md)."},
    {"Settings", "journaldays", Type::Integer, "90",
     "Broadcasts and journal entries are kept for so many days; 0: always."},
    {"Settings", "receiptdays", Type::Integer, "14",
     "What became of a broadcast at each speaker is kept for so many days; 0: always."},
    {"Settings", "nodenumber", Type::Integer, "0",
     "1 to 255, in the numbers of broadcasts: each node that shares a database or speakers has another. 0: "
     "from the last number of LocalIP, and PS2."},
    {"Settings", "keepbound", Type::Flag, "false",
     "A speaker that was heard of within 10 s is not taken by a registration from another address."},
    {"Settings", "weborigins", Type::Text, "",
     "Hosts whose web pages may use this service beside its own, separated by commas."},
    {"Settings", "hardened", Type::Flag, "false",
     "Default of the keys below: the safe ways that differ from what older clients were written for."},
    {"Settings", "ownonly", Type::Flag, "hardened",
     "An account commands only speakers and uses only files of its own, or its master's by mask."},
    {"Settings", "callbacktokens", Type::Flag, "hardened",
     "Call-backs of alarm lines carry a random secret of their binding instead of the account's password."},
    {"Settings", "randomtokens", Type::Flag, "hardened", "Tokens are made with 16 random bytes more."},
    {"Settings", "safeurls", Type::Flag, "hardened",
     "Addresses to play that hold a quote, a backslash or a character that a shell acts on are refused."},
    {"Settings", "adminpictures", Type::Flag, "hardened",
     "The three picture uploads are for administrators."},
    {"Settings", "tokenpaths", Type::Flag, "hardened",
     "/user/olist, the payment reads and /user/startwarning ask for a token or a secret of their own."},
    {"Settings", "hashpasswords", Type::Flag, "hardened",
     "The older paths store passwords as hashes too; a plain one becomes a hash at its next login."},
    {"Settings", "tokendays", Type::Integer, "30",
     "Days after which a login of the interface v1 ends when it is not used; at least 1."},
    {"Settings", "auditdays", Type::Integer, "365", "The audit log is kept for so many days; 0: always."},
    {"sessions", "expirationTime", Type::Integer, "3600000", "Life of an unused HTTP session, ms."},
    {"sessions", "cookieName", Type::Text, "sessionid", "Cookie of the HTTP session."},
    {"docroot", "path", Type::Text, "etc/docroot",
     "Document root, relative to the configuration file. Uploads are stored in etc/docroot below runingdir: "
     "name that directory to have them served."},
    {"docroot", "encoding", Type::Text, "UTF-8", "Encoding announced for text files."},
    {"docroot", "maxAge", Type::Integer, "60000", "How long a client may keep a file, ms."},
    {"docroot", "cacheTime", Type::Integer, "60000", "No effect: the kernel's page cache does that work."},
    {"docroot", "cacheSize", Type::Integer, "1000000", "No effect, see cacheTime."},
    {"docroot", "maxCachedFileSize", Type::Integer, "65536", "No effect, see cacheTime."},
    {"templates", "path", Type::Text, ".", "Directory of templates; relative to the configuration file."},
    {"templates", "suffix", Type::Text, ".tpl", "File name suffix of templates."},
    {"templates", "encoding", Type::Text, "UTF-8", "Encoding of templates."},
    {"listener", "host", Type::Text, "", "Address the HTTP listener binds; empty: every one."},
    {"listener", "port", Type::Integer, "12080", "TCP port of the HTTP listener."},
    {"listener", "minThreads", Type::Integer, "4", "HTTP workers that stay."},
    {"listener", "maxThreads", Type::Integer, "100", "HTTP workers at most."},
    {"listener", "cleanupInterval", Type::Integer, "60000", "Idle time after which a worker ends, ms."},
    {"listener", "readTimeout", Type::Integer, "60000", "Time for a client to send its request, ms."},
    {"listener", "maxRequestSize", Type::Integer, "2000000", "Largest request body in memory, bytes."},
    {"listener", "maxMultiPartSize", Type::Integer, "134217728", "Largest upload, bytes."},
};

QString fullName(const SettingKey& key) {
    return QLatin1String(key.group) + QLatin1Char('/') + QLatin1String(key.name);
}

QVariant converted(const SettingKey& key, const QString& text) {
    switch (key.type) {
    case Type::Integer:
        return static_cast<int>(std::clamp<qint64>(text.toLongLong(), INT_MIN, INT_MAX));
    case Type::Flag:
        return QVariant(text).toBool();
    case Type::Text:
        break;
    }
    return text;
}

// An unquoted comma makes QSettings give a list: the text is what stood in the file.
QString storedText(const QVariant& stored) {
    return stored.type() == QVariant::StringList ? stored.toStringList().join(QLatin1Char(','))
                                                 : stored.toString();
}

// A flag whose default names another key has that key's value, which was read before it.
QVariant defaultOf(const SettingKey& key, const Settings& read) {
    if (key.type == Type::Flag && qstrcmp(key.defaultValue, "hardened") == 0)
        return read.flag("hardened");
    return QLatin1String(key.defaultValue);
}

} // namespace

const std::vector<SettingKey>& settingKeys() {
    return Keys;
}

Settings Settings::load(const QString& iniPath, const QString& detectedAddress) {
    if (!QFileInfo(iniPath).isFile())
        qWarning().noquote() << "Config file missing:" << QFileInfo(iniPath).absoluteFilePath();
    QSettings file(iniPath, QSettings::IniFormat);
    file.setIniCodec("UTF-8");

    Settings settings;
    settings.m_iniPath = iniPath;
    for (const SettingKey& key : Keys) {
        const QString name = fullName(key);
        const QVariant stored = file.value(name, defaultOf(key, settings));
        settings.m_values.insert(name, converted(key, storedText(stored)));
    }
    settings.m_hasLocalIp = file.contains(QStringLiteral("Settings/LocalIP"));

    const auto set = [&settings](const char* name, const QString& text) {
        settings.m_values.insert(QStringLiteral("Settings/") + QLatin1String(name), text);
    };
    settings.m_lanAddress =
        file.contains(QStringLiteral("Settings/locipsss")) ? settings.text("locipsss") : detectedAddress;
    set("locipsss", settings.m_lanAddress);
    if (!file.contains(QStringLiteral("Settings/localcdn")))
        set("localcdn", settings.m_lanAddress + QStringLiteral(":8080"));
    if (settings.flag("ISLOCALHOST")) {
        set("Meida_ip", settings.m_lanAddress);
        set("LocalIP", settings.m_lanAddress);
        set("preurl", settings.text("preurl")
                          .replace(QLatin1String(BuiltInHost), settings.m_lanAddress)
                          .replace(QStringLiteral("FUCKHOST"), settings.m_lanAddress));
    }
    return settings;
}

QString Settings::text(const char* key) const {
    return value(key).toString();
}

int Settings::integer(const char* key) const {
    return value(key).toInt();
}

bool Settings::flag(const char* key) const {
    return value(key).toBool();
}

QVariant Settings::value(const char* key) const {
    QString name = QLatin1String(key);
    if (!name.contains(QLatin1Char('/')))
        name.prepend(QStringLiteral("Settings/"));
    const auto found = m_values.constFind(name);
    if (found == m_values.constEnd())
        qFatal("unknown configuration key %s", key);
    return *found;
}

QString detectLanAddress() {
    const QList<QHostAddress> addresses = QNetworkInterface::allAddresses();
    for (const QHostAddress& address : addresses) {
        QString text = address.toString();
        qDebug().noquote() << "ISLOCALHOST::>>>" << text;
        if (!text.startsWith(QStringLiteral("127.0.0")) && text.split(QLatin1Char('.')).size() == 4)
            return text;
    }
    return {};
}
