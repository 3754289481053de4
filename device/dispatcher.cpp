#include "device/dispatcher.h"

#include "device/jsontext.h"
#include "device/saobj.h"
#include "device/severinit_state.h"
#include "device/statemirror.h"

#include <algorithm>
#include <QJsonArray>
#include <QJsonDocument>
#include <vector>

namespace {

constexpr char NoTargets[] = "Data_error_7";
/// Failed serials that "info" names; the rest is counted.
constexpr int NamedFailures = 20;

QStringList texts(const QJsonValue& array) {
    const QJsonArray entries = array.toArray();
    QStringList found;
    found.reserve(entries.size());
    for (const QJsonValue entry : entries)
        found << entry.toString();
    return found;
}

/// A fleet's sessions are never in the cache when a command comes: what the next ones need is fetched,
/// a step of the way to the socket each, while the kernel sends.
void fetchSessions(const std::vector<SAobj*>& sessions, size_t index) {
    const auto known = [](auto step) {
        return [step](const SAobj* session) {
            if (session)
                (session->*step)();
        };
    };
    fetchAhead(sessions, index, known(&SAobj::fetch), known(&SAobj::fetchConnection),
               known(&SAobj::fetchSocket));
}

/// What became of the targets of one command, and the reply that tells it.
class Outcome {
public:
    Outcome(const ResultWords& words, bool tellsEach)
        : m_words(words)
        , m_word(words.done)
        , m_tellsEach(tellsEach) {}

    void run(const QString& sn, SAobj* session, const SessionCall& call) {
        const Fate fate = attempt(session, call);
        const char* const word = wordOf(fate);
        ++m_targets;
        if (fate != Fate::Done) {
            if (word)
                m_word = word;
            if (m_failed++ < NamedFailures)
                m_failures << sn + QLatin1Char(' ') + QLatin1String(word ? word : "not sent");
        }
        if (m_tellsEach)
            addToList(sn, word);
    }

    QByteArray reply() const {
        QByteArray json = Dispatcher::reply(m_word, info());
        if (m_tellsEach) {
            json.chop(1);
            json += ",\"list\":[" + m_list + "]}";
        }
        return json;
    }

private:
    enum class Fate { Done, Offline, Unknown, Disabled, Broken };

    static Fate attempt(SAobj* session, const SessionCall& call) {
        if (!session)
            return Fate::Unknown;
        if (!session->isOnline())
            return Fate::Offline;
        const int written = call(*session);
        if (written == SAobj::NotBound)
            return Fate::Disabled;
        return written > 0 ? Fate::Done : Fate::Broken;
    }

    const char* wordOf(Fate fate) const {
        switch (fate) {
        case Fate::Offline:
            return m_words.offline;
        case Fate::Unknown:
            return m_words.unknown;
        case Fate::Disabled:
            return m_words.disabled;
        case Fate::Broken:
            return m_words.broken;
        case Fate::Done:
            break;
        }
        return m_words.done;
    }

    void addToList(const QString& sn, const char* word) {
        m_list += m_list.isEmpty() ? "{\"sn\":" : ",{\"sn\":";
        appendJsonText(m_list, sn);
        m_list += ",\"res\":\"";
        m_list += word;
        m_list += "\"}";
    }

    QString info() const {
        QString text = QStringLiteral("sent to %1 of %2").arg(m_targets - m_failed).arg(m_targets);
        if (m_failed > 0)
            text += QStringLiteral("; ") + m_failures.join(QStringLiteral(", "));
        if (m_failed > NamedFailures)
            text += QStringLiteral(", %1 more").arg(m_failed - NamedFailures);
        return text;
    }

    const ResultWords& m_words;
    const char* m_word;
    bool m_tellsEach;
    int m_targets = 0;
    int m_failed = 0;
    QStringList m_failures;
    QByteArray m_list;
};

} // namespace

// --- the service's door ---

void Severinit::addCommand(const QString& word, const Command& command) {
    m_state->addedCommands.insert(word, command);
}

QByteArray Severinit::Diamonds_jsondidocom(const QByteArray& request) {
    return Dispatcher(*this, m_state->addedCommands).run(request);
}

// --- one request ---

QByteArray Dispatcher::reply(const char* word, const QString& info) {
    QByteArray json = QByteArrayLiteral("{\"res\":\"") + word + "\",\"info\":";
    appendJsonText(json, info);
    return json + '}';
}

QByteArray Dispatcher::run(const QByteArray& bytes) {
    QJsonParseError error{};
    const QJsonDocument document = QJsonDocument::fromJson(bytes, &error);
    if (error.error != QJsonParseError::NoError)
        return reply("json_error",
                     QStringLiteral("%1 at byte %2").arg(error.errorString()).arg(error.offset));
    if (!document.isObject())
        return reply("json_error", QStringLiteral("not a JSON object"));
    const QJsonObject request = document.object();
    const QString word = request.value(QLatin1String("cmd")).toString();
    const int mode = Arguments(request).integer("mode").value_or(0);
    const auto& table = commandTable();
    const auto row = std::find_if(table.begin(), table.end(), [&](const CommandRow& candidate) {
        return (candidate.mode != 0 && candidate.mode == mode) || word == QLatin1String(candidate.word);
    });
    if (row != table.end())
        return runRow(*row, request);
    if (m_added.contains(word))
        return runAdded(m_added.value(word), word, request);
    return reply("unknown_cmd",
                 word.isEmpty() ? QStringLiteral("no \"cmd\"") : QStringLiteral("no command ") + word);
}

QByteArray Dispatcher::runRow(const CommandRow& row, const QJsonObject& request) {
    if (row.answer)
        return row.answer(*this, request);
    const auto targets = resolve(row.targets, QLatin1String(row.word), request);
    if (targets && targets->isEmpty())
        return reply(NoTargets, QStringLiteral("no speakers in \"snlist\" or \"group\""));
    const Plan plan = row.plan(Arguments(request));
    if (!plan.call)
        return reply(plan.refusal, plan.info);
    Outcome outcome(row.words, row.tellsEach);
    const std::vector<SAobj*> sessions = targets ? sessionsOf(*targets) : everySession();
    for (size_t i = 0; i < sessions.size(); ++i) {
        fetchSessions(sessions, i);
        SAobj* const session = sessions[i];
        outcome.run(targets ? targets->at(static_cast<int>(i)) : session->sn(), session, plan.call);
    }
    return outcome.reply();
}

QByteArray Dispatcher::runAdded(const Severinit::Command& command, const QString& word,
                                const QJsonObject& request) {
    const QStringList targets = each(word, request);
    if (targets.isEmpty())
        return reply(NoTargets, QStringLiteral("no speakers in \"snlist\" or \"group\""));
    return QJsonDocument(command(request, targets)).toJson(QJsonDocument::Compact);
}

/// All lookups before the first command: one by one between the writes each would wait for memory anew.
std::vector<SAobj*> Dispatcher::sessionsOf(const QStringList& serials) const {
    std::vector<SAobj*> sessions;
    sessions.reserve(static_cast<size_t>(serials.size()));
    for (const QString& sn : serials)
        sessions.push_back(m_devices.session(sn));
    return sessions;
}

std::vector<SAobj*> Dispatcher::everySession() const {
    const auto& sessions = m_devices.sessions();
    return {sessions.begin(), sessions.end()};
}

/// The serials that the request names; nothing when it is for every session.
std::optional<QStringList> Dispatcher::resolve(Targets targets, const QString& word,
                                               const QJsonObject& request) const {
    switch (targets) {
    case Targets::One:
        return QStringList{request.value(QLatin1String("sn")).toString()};
    case Targets::List:
        return texts(request.value(QLatin1String("snlist")));
    case Targets::Each:
        return each(word, request);
    case Targets::All:
    case Targets::None:
        break;
    }
    return std::nullopt;
}

QStringList Dispatcher::each(const QString& word, const QJsonObject& request) const {
    QStringList listed = texts(request.value(QLatin1String("snlist")));
    if (listed.isEmpty())
        return expandGroup(request);
    if (!word.endsWith(QLatin1String("_G")))
        return listed;
    return request.contains(QLatin1String("group")) ? expandGroup(request) : listed;
}

QStringList Dispatcher::expandGroup(const QJsonObject& request) const {
    const QString group = request.value(QLatin1String("group")).toString();
    StateMirror* const mirror = m_devices.stateMirror();
    return group.isEmpty() || !mirror ? QStringList() : mirror->backsnlist(group);
}

// --- arguments ---

std::optional<int> Arguments::integer(const char* key) const {
    const QJsonValue value = m_request.value(QLatin1String(key));
    bool isInteger = false;
    int number = 0;
    if (value.isDouble()) {
        number = value.toVariant().toInt(&isInteger);
        isInteger = isInteger && number == value.toDouble();
    } else {
        number = value.toString().toInt(&isInteger);
    }
    return isInteger ? std::optional<int>(number) : std::nullopt;
}

std::optional<QString> Arguments::text(const char* key) const {
    const QJsonValue value = m_request.value(QLatin1String(key));
    if (value.isDouble()) {
        const auto number = integer(key);
        return number ? std::optional<QString>(QString::number(*number)) : std::nullopt;
    }
    if (!value.isString() || value.toString().toUtf8().size() > MaxBytes)
        return std::nullopt;
    return value.toString();
}

std::optional<QString> Arguments::filledText(const char* key) const {
    auto found = text(key);
    return found && !found->isEmpty() ? found : std::nullopt;
}

QStringList Arguments::files() const {
    const QStringList found = texts(m_request.value(QLatin1String("filelist")));
    return found.contains(QString()) ? QStringList() : found;
}
