#pragma once

#include "device/playwatch.h"

#include <functional>
#include <optional>
#include <QByteArray>
#include <QJsonObject>
#include <QString>
#include <QStringList>
#include <vector>

class Dispatcher;
class SAobj;
class Severinit;

/// What a command does to one session: returns what the session's command returned.
using SessionCall = std::function<int(SAobj&)>;

/// A command whose arguments have been read, ready for any number of sessions; or why not.
struct Plan {
    SessionCall call;
    const char* refusal = nullptr; ///< result word when there is no call
    QString info;

    template<typename Call>
    Plan(Call work) // NOLINT(google-explicit-constructor): a plan is written as its call
        : call(std::move(work)) {}
    static Plan refused(const char* word, QString why) {
        Plan plan(nullptr);
        plan.refusal = word;
        plan.info = std::move(why);
        return plan;
    }
};

/// Arguments of one request. Integers may stand as JSON numbers or as decimal text.
class Arguments {
public:
    /// Longest argument of a command: well below what may wait for a speaker that is slow to read, so
    /// that no command ends a connection.
    static constexpr int MaxBytes = 64 * 1024;

    explicit Arguments(const QJsonObject& request)
        : m_request(request) {}
    std::optional<int> integer(const char* key) const;
    /// Text or integer, as text; nothing when missing, of another type or too long.
    std::optional<QString> text(const char* key) const;
    /// The same, but not empty.
    std::optional<QString> filledText(const char* key) const;
    /// Entries of "filelist"; empty when it is missing or any entry is no text or empty.
    QStringList files() const;

private:
    const QJsonObject& m_request;
};

/// How a command names its sessions.
enum class Targets {
    One,  ///< "sn"
    List, ///< "snlist"
    Each, ///< "snlist" or "group"; a word that ends in "_G" looks at "group" first
    All,  ///< every session of the registry
    None, ///< the command answers by itself
};

/// Result words of a command, one for each thing that can become of a target. The reply carries the
/// last failure's, `done` when there was none. Null: such a failure does not show in the result word.
struct ResultWords {
    const char* done = "success";
    const char* offline = "unline";
    const char* unknown = "out_of_range";
    const char* disabled = "unline"; ///< online, but the session's enable flag is clear
    const char* broken = "unline";   ///< the connection broke as it was written
};

/// One command: the row of the table.
struct CommandRow {
    const char* word;
    int mode; ///< number in "mode" that selects it too; 0: none
    Targets targets;
    Plan (*plan)(const Arguments&); ///< null: no target is sent anything
    ResultWords words;
    /// The whole reply, when the command answers by itself; with other targets than none, an empty one
    /// leaves it to them.
    QByteArray (*answer)(Dispatcher&, const QJsonObject&) = nullptr;
    bool tellsEach = false; ///< the reply's "list" holds every target's own result word
    /// What the reply's "list" holds of each session instead.
    void (*entry)(QByteArray& list, const SAobj&) = nullptr;
    /// Done with each serial, whether it has a session or not.
    void (*mark)(Severinit&, const QString& sn) = nullptr;
    PlayKind play = PlayKind::None; ///< what it does to what its targets play
};

/// Every command of the device room, in the order in which a request is compared with them.
const std::vector<CommandRow>& commandTable();
