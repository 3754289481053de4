#pragma once

#include <QHash>
#include <QString>
#include <QStringList>
#include <QVariant>
#include <vector>

/// One configuration key: the row of the table that loading, documentation and tests share.
struct SettingKey {
    enum class Type { Text, Integer, Flag };
    const char* group;        ///< INI group, e.g. "Settings"
    const char* name;         ///< key, case as written in the file
    Type type;                ///< what the text is converted to; a non-numeric integer reads as 0
    const char* defaultValue; ///< text of the default; a default worked out at run time is told in `doc`
    const char* doc;          ///< one line: what it is used for, with its unit
};

/// Every key of the groups that the service reads itself, in reading order.
const std::vector<SettingKey>& settingKeys();

/// The configuration: one INI file, read once at start-up, never reloaded. A plain value; copy it freely.
class Settings {
public:
    /// Reads `iniPath`. A missing file is logged with its path and gives the defaults.
    /// `detectedAddress` is this machine's first IPv4 address that is not loopback, or empty;
    /// the addresses that are derived from it (`locipsss`, `ISLOCALHOST`, `localcdn`, `preurl`) are
    /// already final in the result.
    static Settings load(const QString& iniPath, const QString& detectedAddress);

    /// Value of a key of group "Settings" unless `key` is "group/name". An unknown key is a
    /// programming error and ends the process.
    QString text(const char* key) const;
    int integer(const char* key) const;
    bool flag(const char* key) const;

    QString iniPath() const { return m_iniPath; }
    /// The detected LAN address after `locipsss`; may be empty.
    QString lanAddress() const { return m_lanAddress; }
    /// False when the file has no `LocalIP` key at all.
    bool hasLocalIp() const { return m_hasLocalIp; }

private:
    QVariant value(const char* key) const;
    QHash<QString, QVariant> m_values;
    QString m_iniPath;
    QString m_lanAddress;
    bool m_hasLocalIp = false;
};

/// First address of this machine that has four dotted parts and does not begin with "127.0.0",
/// in the order in which the system reports them; empty when there is none.
QString detectLanAddress();
