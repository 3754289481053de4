// A fleet of speakers as load, without Qt: what it costs a server to hold them and to reach them all.
// bench/fleet.sh starts the servers and prints the table; see bench/README.md.
#include "fleet_rawserver.h"
#include "fleet_rounds.h"
#include "fleet_wire.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <map>
#include <memory>
#include <string>
#include <sys/resource.h>

namespace {

constexpr auto Usage =
    "fleet raw-server --port P               the bare server\n"
    "fleet speakers|raw|mqtt --port P --control P --pid PID --count N [--rest SECONDS]\n"
    "  prints: storm ms, volume to all ms, play to all ms, CPU at rest %, memory kB per connection,\n"
    "  CPU ms of the storm, CPU ms of one volume command\n"
    "fleet announcements --token T ... (as speakers; --control is the HTTP port): prints ms from the request "
    "to\n"
    "  the last speaker's byte and from the first speaker's byte to the last's\n"
    "with --rounds N (speakers only): all are cut off and come back N times; prints for each round:\n"
    "  its number, ms until LIST tells all offline, storm ms, ms until LIST tells all online, resident kB,\n"
    "  whether LIST's states were right\n";

constexpr auto Announcements = "announcements";

using Arguments = std::map<std::string, std::string>;

Arguments parse(int argc, char** argv) {
    Arguments arguments;
    for (int i = 2; i + 1 < argc; i += 2)
        arguments[argv[i]] = argv[i + 1];
    return arguments;
}

int number(const Arguments& arguments, const std::string& name, int otherwise = 0) {
    const auto found = arguments.find(name);
    return found == arguments.end() ? otherwise : std::atoi(found->second.c_str());
}

std::unique_ptr<Wire> makeWire(const std::string& mode, int count, const Arguments& arguments) {
    if (mode == Announcements)
        return std::make_unique<AnnouncementWire>(arguments.at("--token"));
    if (mode == "speakers")
        return std::make_unique<SpeakerWire>(count);
    if (mode == "raw")
        return std::make_unique<RawWire>();
    if (mode == "mqtt")
        return std::make_unique<MqttWire>();
    return nullptr;
}

void raiseOpenFileLimit() {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

Fleet::Options loadOptions(const Arguments& arguments) {
    Fleet::Options options;
    options.count = number(arguments, "--count", options.count);
    options.port = static_cast<std::uint16_t>(number(arguments, "--port"));
    options.controllerPort = static_cast<std::uint16_t>(number(arguments, "--control"));
    options.server = number(arguments, "--pid");
    options.rest = std::chrono::seconds(number(arguments, "--rest", 15));
    options.window = number(arguments, "--window", options.window);
    return options;
}

void printAnnouncements(const Wire& wire, const Fleet::Options& options) {
    const Figures figures = Fleet(wire, options).run();
    std::printf("%.1f %.1f\n", figures.playMs, figures.spreadMs);
}

void printFigures(const Wire& wire, const Fleet::Options& options) {
    const Figures figures = Fleet(wire, options).run();
    std::printf("%.1f %.1f %.1f %.2f %.2f %.1f %.2f\n", figures.stormMs, figures.volumeMs, figures.playMs,
                figures.cpuPercent, figures.kilobytes, figures.stormCpuMs, figures.volumeCpuMs);
}

void printRounds(const Wire& wire, const Fleet::Options& options, int rounds) {
    int index = 0;
    runRounds(wire, options, rounds, [&index](const Round& round) {
        std::printf("%d %.0f %.0f %.0f %ld %s\n", index++, round.offlineMs, round.stormMs, round.onlineMs,
                    round.kilobytes, round.statesRight ? "right" : "WRONG");
        std::fflush(stdout);
    });
}

int runLoad(const std::string& mode, const Arguments& arguments) {
    const Fleet::Options load = loadOptions(arguments);
    const auto wire = makeWire(mode, load.count, arguments);
    const int rounds = number(arguments, "--rounds");
    if (!wire || (rounds > 0 && mode != "speakers")) {
        std::fputs(Usage, stderr);
        return 2;
    }
    if (rounds > 0)
        printRounds(*wire, load, rounds);
    else if (mode == Announcements)
        printAnnouncements(*wire, load);
    else
        printFigures(*wire, load);
    return 0;
}

int run(int argc, char** argv) {
    const std::string mode = argc > 1 ? argv[1] : "";
    const Arguments arguments = parse(argc, argv);
    raiseOpenFileLimit();
    if (mode == "raw-server")
        return runRawServer(static_cast<std::uint16_t>(number(arguments, "--port")));
    return runLoad(mode, arguments);
}

} // namespace

int main(int argc, char** argv) {
    try {
        return run(argc, argv);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "fleet: %s\n", error.what());
        return 1;
    }
}
