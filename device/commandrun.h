#pragma once

#include "device/commandrow.h"

#include <QDeadlineTimer>
#include <QHash>
#include <QJsonArray>
#include <vector>

/// The serials that a command is for, in their order.
class TargetList {
public:
    TargetList() = default;
    explicit TargetList(QStringList serials)
        : m_serials(std::move(serials)) {}
    /// An entry that is no text is a serial that nobody has.
    explicit TargetList(QJsonArray entries)
        : m_entries(std::move(entries)) {}

    int size() const { return m_entries.isEmpty() ? m_serials.size() : m_entries.size(); }
    QString at(int index) const {
        return m_entries.isEmpty() ? m_serials.at(index) : m_entries.at(index).toString();
    }
    QStringList serials() const;
    /// Does beforehand, on any thread, what the first count() would: it takes a while for a long list.
    void prepareCount();
    /// How often the serial stands from the place `from` on.
    int count(const QString& sn, int from);
    /// The first place from there on where it stands; -1: none.
    int indexOf(const QString& sn, int from);

private:
    QStringList m_serials;
    QJsonArray m_entries;
    std::vector<uint> m_hashes; ///< of every serial, once somebody has looked for one
};

/// One command on its way through its targets, in as many goes as it takes, and the reply that tells what
/// became of them. Sessions may come and go between two goes.
class CommandRun {
public:
    /// Served in one go at least: between two looks at the clock, one or two milliseconds.
    static constexpr int BlockSize = 256;

    /// Without a `call` nothing is sent.
    CommandRun(Severinit& devices, const CommandRow& row, SessionCall call, TargetList targets);
    /// Every session of the registry.
    CommandRun(Severinit& devices, const CommandRow& row, SessionCall call);

    /// It is a play or a stop, of which the registry's watches are asked and told. Before the first speaker.
    void watch(const PlayCommand& command, const PlayOrders& orders);

    int size() const;
    QStringList serials() const;
    /// Neither sends nor changes anything.
    bool isQuiet() const { return !m_call && !m_row.mark; }
    /// Serves targets in their order until none is left (true) or the time is over.
    bool proceed(const QDeadlineTimer& until);
    /// Serves the speaker now wherever it still stands: what came later is about to reach it.
    void serveEarly(const QString& sn);
    QByteArray reply() const;

private:
    enum class Fate { Done, Offline, Unknown, Disabled, Broken, Refused };
    void serveBlock();
    QStringList nextSerials();
    std::vector<SAobj*> sessionsOf(const QStringList& serials) const;
    std::vector<SAobj*> nextSessions();
    Fate serve(const QString& sn, SAobj* session, int place);
    Fate attempt(SAobj* session);
    Fate attemptWatched(const QString& sn, SAobj* session, int place);
    void enterOrder(quint64 order);
    void endOrders();
    void note(const QString& sn, const SAobj* session, Fate fate);
    void addToList(const QString& sn, const char* word);
    const char* wordOf(Fate fate) const;
    QString info() const;

    Severinit& m_devices;
    const CommandRow& m_row;
    SessionCall m_call;
    TargetList m_targets;
    bool m_isForAll = false;
    bool m_isOver = false;
    int m_next = 0;               ///< place of the first target that has not had its turn
    QString m_nextSerial;         ///< its serial, when it is for every session
    QHash<QString, Fate> m_early; ///< served before their turn
    PlayCommand m_command;        ///< with the order of the speaker that is being served
    PlayOrders m_orders;
    QHash<quint64, quint64> m_begun; ///< the watches' number of each order that the command names
    // For the reply.
    const char* m_word;
    int m_served = 0;
    int m_failed = 0;
    QStringList m_failures;
    QByteArray m_list;
};
