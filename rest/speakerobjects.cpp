#include "rest/speakerobjects.h"

#include "core/sql/sqlite.h"
#include "device/saobj.h"
#include "rest/timestamp.h"
#include "service/groups.h"
#include "service/speakerboard.h"
#include "service/speakercommands.h"
#include "service/speakernodes.h"

#include <QDateTime>
#include <QJsonArray>

namespace {

using State = SpeakerState::State;

State stateOfRow(int status) {
    if (status == SAobj::Streaming)
        return State::Live;
    return status == SAobj::Offline ? State::Offline : State::Idle;
}

QString healthWord(const SpeakerState& state) {
    if (!state.isOnline())
        return QStringLiteral("offline");
    switch (state.health) {
    case SpeakerState::Health::Flaky:
        return QStringLiteral("flaky");
    case SpeakerState::Health::Silent:
        return QStringLiteral("silent");
    case SpeakerState::Health::Ok:
        break;
    }
    return QStringLiteral("ok");
}

QJsonValue playing(const SpeakerState& state) {
    if (state.broadcast == 0 && state.playing.isEmpty())
        return {};
    const QJsonValue broadcast =
        state.broadcast == 0 ? QJsonValue() : QJsonValue(static_cast<qint64>(state.broadcast));
    return QJsonObject{{QStringLiteral("broadcast"), broadcast}, {QStringLiteral("name"), state.playing}};
}

template<typename T>
QJsonValue known(const T& value) {
    return value == T() ? QJsonValue() : QJsonValue(value);
}

QJsonArray numbers(const QList<qint64>& ids) {
    QJsonArray array;
    for (const qint64 id : ids)
        array.append(id);
    return array;
}

} // namespace

QJsonObject SpeakerObjects::objectOf(const Speaker& speaker, const SpeakerState& state,
                                     const QList<qint64>& groups) {
    const qint64 now = QDateTime::currentMSecsSinceEpoch();
    const QString firmware = state.firmware == 0 ? QString() : QString::number(state.firmware);
    return {{QStringLiteral("serial"), speaker.serial},
            {QStringLiteral("name"), speaker.name},
            {QStringLiteral("state"), stateWords().at(static_cast<int>(state.state))},
            {QStringLiteral("volume"), known(state.volume)},
            {QStringLiteral("address"), known(state.address)},
            {QStringLiteral("firmware"), known(firmware)},
            {QStringLiteral("battery"), known(state.battery)},
            {QStringLiteral("enabled"), state.isEnabled},
            {QStringLiteral("owner"), speaker.owner},
            {QStringLiteral("groups"), numbers(groups)},
            {QStringLiteral("since"), timestampOrNull(state.since)},
            {QStringLiteral("lastSeen"), timestampOrNull(state.isOnline() ? now : state.lastSeen)},
            {QStringLiteral("playing"), playing(state)},
            {QStringLiteral("node"), speaker.node},
            {QStringLiteral("health"), healthWord(state)}};
}

SpeakerObjects::SpeakerObjects(sqlite& database, const SpeakerBoard& board, const Gate& gate, Scope groups)
    : m_database(database)
    , m_board(board)
    , m_groups(std::move(groups)) {
    if (database.dialect() != SqlDialect::Mysql) // a file is one node's
        return;
    m_otherNodes = otherNodes(database, gate);
    const QStringList disabled = m_otherNodes.isEmpty() ? QStringList() : disabledSpeakers(database);
    m_disabledElsewhere = QSet<QString>(disabled.begin(), disabled.end());
}

const QStringList& SpeakerObjects::stateWords() {
    static const QStringList words{QStringLiteral("offline"), QStringLiteral("idle"),
                                   QStringLiteral("playing"), QStringLiteral("live")};
    return words;
}

std::vector<SpeakerState> SpeakerObjects::statesOf(const std::vector<Speaker>& speakers) const {
    QStringList serials;
    for (const Speaker& speaker : speakers)
        serials += speaker.serial;
    std::vector<SpeakerState> states = m_board.states(serials);
    for (size_t i = 0; i < states.size(); ++i) {
        if (!isElsewhere(speakers[i]) || states[i].isOnline())
            continue;
        states[i].state = stateOfRow(speakers[i].status);
        states[i].volume = speakers[i].volume;
        states[i].since = 0;
        states[i].isEnabled = !m_disabledElsewhere.contains(speakers[i].serial);
    }
    return states;
}

std::vector<QJsonObject> SpeakerObjects::of(const std::vector<Speaker>& speakers) const {
    QList<qint64> ids;
    for (const Speaker& speaker : speakers)
        ids += speaker.id;
    const QHash<qint64, QList<qint64>> groups = groupsOf(m_database, m_groups, ids);
    const std::vector<SpeakerState> states = statesOf(speakers);
    std::vector<QJsonObject> objects;
    objects.reserve(speakers.size());
    for (size_t i = 0; i < speakers.size(); ++i)
        objects.push_back(objectOf(speakers[i], states[i], groups.value(speakers[i].id)));
    return objects;
}
