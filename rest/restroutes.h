#pragma once

#include "rest/restanswer.h"

#include <optional>
#include <QList>
#include <QMap>
#include <vector>

class RestCall;

/// Who may use a route at all. What of it he sees and may change, the handler asks of service/visibility.
enum class Who { Anybody, Account, Admin };

/// What the request carries besides its query.
enum class Takes {
    Nothing,  ///< no body, or an empty object
    Object,   ///< a JSON object
    File,     ///< bytes of any type as the body, or multipart with the part "file": RestCall::file()
    Calendar, ///< text/calendar: RestCall::bytes()
};

/// Further traits of a route, to be or-ed.
enum RouteTrait : unsigned {
    Paged = 1,        ///< a list: takes "limit" and "cursor", RestCall::page()
    Secret = 2,       ///< its answer holds a secret: it is never kept for an Idempotency-Key
    TokenInQuery = 4, ///< for players that send no headers: the token may come as "?token="
    Encodes = 8,      ///< keeps a processor busy: waits its turn (RestRouter::lanes())
    Hashes = 16,      ///< the same for passwords
    Renames = 32,     ///< changes names, owners, groups or rights of speakers: Services::changes
};

/// One row of the table of routes. `path` is below "/api/v1"; "{name}" stands for one part of it.
struct RestRoute {
    const char* method;
    const char* path;
    RestAnswer (*handler)(RestCall& call);
    Who who = Who::Account;
    unsigned traits = 0;
    Takes takes = Takes::Nothing;
    QList<QByteArray> query = {}; ///< names that its query may hold, beside those of its traits
};

/// The table. Filled once, then read by any thread.
class RestRoutes {
public:
    /// Every route of the interface.
    static const RestRoutes& all();

    void add(std::initializer_list<RestRoute> routes);
    const std::vector<RestRoute>& rows() const { return m_routes; }

    struct Match {
        const RestRoute* route = nullptr; ///< null: no such path, or not this method
        QMap<QByteArray, QString> values; ///< of the "{name}" parts
        QList<QByteArray> allowed;        ///< methods that the path takes; empty: no such path
    };
    /// `rawPath` is percent-encoded and begins with "/api/v1". HEAD counts as GET. A row whose part is
    /// spelt out comes before one with a "{name}" there.
    Match find(const QByteArray& method, const QByteArray& rawPath) const;

private:
    std::vector<RestRoute> m_routes;
};
