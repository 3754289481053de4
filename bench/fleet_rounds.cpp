#include "fleet_rounds.h"

#include "process.h"

#include <array>
#include <sys/socket.h>
#include <unistd.h>

using namespace std::chrono_literals;

namespace {

/// How long LIST may take to tell what has happened; a network fault is over in this time or it is a wrong
/// state.
constexpr auto StatePatience = 30s;
constexpr auto AskAgain = 100ms;

int occurrences(std::string_view text, std::string_view word) {
    int count = 0;
    for (auto at = text.find(word); at != std::string_view::npos; at = text.find(word, at + word.size()))
        ++count;
    return count;
}

struct States {
    int online = 0;
    int offline = 0;
};

/// One LIST, on a connection of its own.
class StateRequest {
public:
    explicit StateRequest(std::uint16_t port)
        : m_fd(connectLoopback(port, 0)) {
        const std::string json = R"({"cmd":"LIST"})";
        writeAll(m_fd, std::to_string(json.size()) + '\n' + json);
    }
    ~StateRequest() { close(m_fd); }
    StateRequest(const StateRequest&) = delete;
    StateRequest& operator=(const StateRequest&) = delete;

    /// Takes what has arrived; true once that is the whole reply.
    bool arrived() {
        std::array<char, 65536> buffer{};
        for (ssize_t size = 0; (size = recv(m_fd, buffer.data(), buffer.size(), 0)) > 0;)
            m_reply.append(buffer.data(), static_cast<std::size_t>(size));
        return m_reply.size() >= 2 && m_reply.compare(m_reply.size() - 2, 2, "\r\n") == 0;
    }
    States states() const {
        return {occurrences(m_reply, R"("status":1)"), occurrences(m_reply, R"("status":0)")};
    }

private:
    int m_fd;
    std::string m_reply;
};

class Rounds {
public:
    Rounds(const Wire& wire, const Fleet::Options& options)
        : m_options(options)
        , m_fleet(wire, options) {}

    Round comeOnline() {
        Round round;
        round.stormMs = m_fleet.storm();
        round.onlineMs = waitForStates({m_options.count, 0}, round);
        m_fleet.runFor(m_options.rest);
        round.statesRight = round.statesRight && tellsNow({m_options.count, 0});
        round.kilobytes = residentKilobytes(m_options.server);
        return round;
    }

    Round cutOffAndReturn() {
        Round cut;
        m_fleet.cutOff();
        const double offlineMs = waitForStates({0, m_options.count}, cut);
        Round round = comeOnline();
        round.offlineMs = offlineMs;
        round.statesRight = round.statesRight && cut.statesRight;
        return round;
    }

private:
    bool tellsNow(States wanted) {
        StateRequest request(m_options.controllerPort);
        m_fleet.runUntil([&request] { return request.arrived(); }, StatePatience, "LIST");
        const States told = request.states();
        return told.online == wanted.online && told.offline == wanted.offline;
    }

    /// Milliseconds until LIST tells it; `round` is marked when it never does.
    double waitForStates(States wanted, Round& round) {
        const auto start = Clock::now();
        while (!tellsNow(wanted)) {
            if (Clock::now() - start > StatePatience) {
                round.statesRight = false;
                break;
            }
            m_fleet.runFor(AskAgain);
        }
        return milliseconds(Clock::now() - start);
    }

    Fleet::Options m_options;
    Fleet m_fleet;
};

} // namespace

void runRounds(const Wire& wire, const Fleet::Options& options, int rounds,
               const std::function<void(const Round&)>& each) {
    Rounds runner(wire, options);
    each(runner.comeOnline());
    for (int i = 0; i < rounds; ++i)
        each(runner.cutOffAndReturn());
}
