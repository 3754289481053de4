#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

/// The load side of bench/fleet: thousands of loopback connections in one thread, plain epoll.

using Clock = std::chrono::steady_clock;

double milliseconds(Clock::duration duration);
double median(std::vector<double> values);

/// What the fleet and its server say to each other.
class Wire {
public:
    enum class Command { Volume, Play };
    enum class Heard { Nothing, Admitted, Command };
    struct Step {
        std::size_t consumed = 0; ///< 0: the message is not there whole
        Heard heard = Heard::Nothing;
        std::string answer; ///< to be sent back
    };

    virtual ~Wire() = default;
    /// First bytes of speaker `index` on its connection.
    virtual std::string greeting(int index) const = 0;
    /// Sent by every speaker every five seconds.
    virtual std::string beat() const = 0;
    /// Reads one message off the front of `bytes`, which is not empty.
    virtual Step read(std::string_view bytes) const = 0;
    /// First bytes of the controller, and one command of his to all speakers.
    virtual std::string controllerGreeting() const = 0;
    virtual std::string command(Command kind, int round) const = 0;
};

/// Figures of one run.
struct Figures {
    double stormMs = 0;    ///< first connect() to last speaker admitted
    double volumeMs = 0;   ///< median: command written to last speaker's last byte
    double playMs = 0;     ///< the same for a play command
    double spreadMs = 0;   ///< of a play command: first speaker's byte to the last one's, median
    double cpuPercent = 0; ///< of the server at rest, of one core
    double kilobytes = 0;  ///< resident memory of the server per connection
    double stormCpuMs = 0; ///< of the server, for the whole storm
    double volumeCpuMs =
        0; ///< of the server, for one volume command to all, without what rest costs meanwhile
};

class Fleet {
public:
    static constexpr int Commands = 15; ///< a median's worth

    struct Options {
        int count = 1000;
        std::uint16_t port = 0;
        std::uint16_t controllerPort = 0;
        pid_t server = 0; ///< whose CPU and memory are read
        std::chrono::seconds rest{15};
        int window = 1000; ///< connections begun and not yet admitted, at most
    };

    Fleet(const Wire& wire, Options options);
    ~Fleet();
    /// Runs everything in order; throws std::runtime_error when the server drops speakers or is too slow.
    Figures run();

    /// Connects all speakers, at most Options::window of them not yet admitted at a time, and waits until the
    /// last is admitted: milliseconds.
    double storm();
    /// Resets all connections at once, as a network fault does.
    void cutOff();
    /// Beats and answers until `done`; throws std::runtime_error after `limit`.
    void runUntil(const std::function<bool()>& done, std::chrono::seconds limit, const char* what);
    void runFor(std::chrono::milliseconds duration);

private:
    struct Speaker {
        int fd = -1;
        bool admitted = false;
        int commands = 0;
        std::string pending; ///< start of a message that is not there whole
    };

    double commandToAll(Wire::Command kind, int round);
    double medianOf(Wire::Command kind);
    double cpuRateAtRest();
    void openSpeaker(int index);
    void openController();
    void turn(std::chrono::milliseconds wait);
    void beat();
    void readSpeaker(Speaker& speaker);
    void hear(Speaker& speaker, Wire::Heard heard);
    void drainController();

    const Wire& m_wire;
    Options m_options;
    int m_epoll;
    int m_controller = -1;
    std::vector<Speaker> m_speakers;
    int m_admitted = 0;
    int m_round = 0;   ///< commands sent
    int m_reached = 0; ///< speakers that have the newest command
    Clock::time_point m_start;
    std::int64_t m_beats = 0;
    Clock::time_point m_firstByte; ///< of the newest command
    Clock::time_point m_lastByte;
    std::vector<double> m_spreads; ///< of the commands of the newest kind
};

/// A non-blocking loopback connection in the making, from 127.0.0.1 or, for a high index, one of the
/// addresses behind it. TCP_NODELAY is set.
int connectLoopback(std::uint16_t port, int index);
/// Writes all of it, waiting where needed.
void writeAll(int fd, std::string_view bytes);
