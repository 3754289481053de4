#pragma once

#include "nodes/nodeaddress.h"
#include "orders/announcement.h"
#include "service/targets.h"

#include <optional>

class Gate;
class Orders;
class Severinit;
class sqlite;
struct Caller;

/// What somebody wants to be announced: on these speakers, as they are when the sound starts.
struct AnnouncementRequest {
    Targets targets;
    Announcement announcement; ///< its number is given with the order
};

/// Gives announcements out to the nodes that have their speakers: one command each. One object for one
/// request, in a thread that may block, on its own database object.
class Announcer {
public:
    Announcer(sqlite& database, Gate& gate, const Severinit& devices, Orders& orders);

    enum class Outcome { Done, Nobody, Unavailable };
    /// `id` is the new broadcast's.
    Outcome announce(const Caller& caller, AnnouncementRequest request, quint64& id);
    /// What was asked for then; nothing when it was no announcement of this interface, or too long ago.
    std::optional<AnnouncementRequest> find(quint64 id);
    /// Ends any broadcast, on every node.
    Outcome stop(quint64 id);
    /// Ends it on those of its speakers that the caller may play to.
    Outcome stopForOwn(const Caller& caller, quint64 id);

    /// A request is kept for so many days.
    static constexpr int DaysKept = 90;

private:
    bool keep(const Caller& caller, const AnnouncementRequest& request);
    void forgetOld();
    void give(const AnnouncementRequest& request, const QStringList& serials);

    sqlite& m_database;
    Gate& m_gate;
    Orders& m_orders;
    const NodeAddress m_own;
};
