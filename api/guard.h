#pragma once

#include <QByteArray>
#include <vector>

class Call;
class Severinit;
class StrictSql;

/// How a request shows on whose behalf it comes.
enum class By {
    Anybody,       ///< it need not, or the endpoint itself reads a name and password
    Token,         ///< "id" and "token"
    LooseToken,    ///< the same; an unknown account with an empty token is let in, and owns nothing
    SafeToken,     ///< with the key `tokenpaths` as Token, else as Anybody
    SafeUserToken, ///< with `tokenpaths` the token of the account "userid" or the key of payments
    ServiceKey,    ///< "sskey"
    PayKey,        ///< "sskey", when a key of payments is configured
    PlanKey,       ///< with `tokenpaths` the random part of the plan's address
};

/// The refusal's word is, for a token, the one for an unknown account (code -1).
struct Auth {
    By by = By::Anybody;
    const char* word = "";
    int code = 0;
};

constexpr unsigned WithFile = 1;      ///< an uploaded file "file"
constexpr unsigned Administrator = 2; ///< with the key `adminpictures`
constexpr unsigned Encodes = 4;       ///< starts a program that takes its time for a sound
constexpr unsigned RunsQuery = 8;     ///< starts a program of the query sets
constexpr unsigned Renames = 16;      ///< changes names, owners or groups of speakers: ChangeCounter

/// What stands between a request and its endpoint, in the order in which it is tested: the file, the
/// parameters' names and lengths, what else is unfit, the account or key, its role.
struct Guard {
    std::vector<const char*> required;
    const char* missing = ""; ///< word for an incomplete request
    Auth auth = {};
    unsigned demands = 0;                       ///< WithFile to Renames
    QByteArray (*unfit)(const Call&) = nullptr; ///< a refusal; empty when all is well
};

/// False when the request must be refused: call.refused() is then the reply.
bool passes(const Guard& guard, Call& call, const StrictSql& database, const Severinit& devices);
