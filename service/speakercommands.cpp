#include "service/speakercommands.h"

#include "service/speakernodes.h"

#include "core/sql/sqlite.h"
#include "device/severinit.h"
#include "nodes/gate.h"
#include "nodes/unreached.h"

#include <algorithm>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

namespace {

constexpr int VolumeMode = 1009; ///< number of the group volume command
constexpr int AtOnce = 1000;     ///< values of one statement

const QString InsertDisabled =
    QStringLiteral("INSERT INTO `speaker_disabled` (`serial`) VALUES ('@serial');");
const QString DeleteDisabled =
    QStringLiteral("DELETE FROM `speaker_disabled` WHERE ( `serial` in ('@serials') );");
const QString SelectDisabled = QStringLiteral("SELECT `serial` FROM `speaker_disabled`;");

int reachedBy(const Gate::Result& result, int targets) {
    if (result.isLost() || result.answer.isEmpty())
        return 0;
    const Unreached missing = unreachedBy(result.answer);
    return missing.count < 0 ? 0 : std::max(0, targets - missing.count);
}

} // namespace

SpeakerCommands::SpeakerCommands(sqlite& database, Gate& gate, const Severinit& devices)
    : m_database(database)
    , m_gate(gate)
    , m_own{QStringLiteral("127.0.0.1"), devices.ps2} {}

Reach SpeakerCommands::setVolume(const QStringList& serials, int level) {
    return send(serials, {{QStringLiteral("mode"), VolumeMode},
                          {QStringLiteral("vol"), level},
                          {QStringLiteral("vols"), level}});
}

bool SpeakerCommands::setEnabled(const QString& serial, bool isEnabled) {
    const bool isKept = m_database.transaction([&] {
        return m_database.run(DeleteDisabled, {{QStringLiteral("@serials"), QStringList{serial}}}).ok &&
               (isEnabled || m_database.run(InsertDisabled, {{QStringLiteral("@serial"), serial}}).ok);
    });
    if (isKept)
        send({serial}, {{QStringLiteral("cmd"),
                         isEnabled ? QStringLiteral("useing_enable") : QStringLiteral("useing_disable")}});
    return isKept;
}

/// To all nodes at once, so that a slow one holds up no other.
Reach SpeakerCommands::send(const QStringList& serials, QJsonObject command) {
    Reach reach{serials.size(), 0};
    if (serials.isEmpty())
        return reach;
    std::vector<std::pair<Gate::PendingPtr, int>> pending;
    for (const NodeShare& share : splitByNode(m_database, m_gate, m_own, serials)) {
        command.insert(QStringLiteral("snlist"), QJsonArray::fromStringList(share.sns));
        pending.emplace_back(m_gate.begin(share.node, QJsonDocument(command).toJson(QJsonDocument::Compact),
                                          Gate::Until::Answered),
                             share.sns.size());
    }
    for (const auto& [call, targets] : pending)
        reach.reached += reachedBy(Gate::await(call), targets);
    return reach;
}

QStringList disabledSpeakers(sqlite& database) {
    const SqlResult rows = database.run(SelectDisabled);
    QStringList serials;
    for (const auto& row : rows.rows)
        serials += row.first().toString();
    return serials;
}

void forgetDisabled(sqlite& database, const QStringList& serials) {
    for (int from = 0; from < serials.size(); from += AtOnce)
        database.run(DeleteDisabled, {{QStringLiteral("@serials"), serials.mid(from, AtOnce)}});
}
