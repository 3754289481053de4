// Load on an HTTP server, raw epoll and no Qt, so that the measuring side costs little:
// N connections that each fetch one file over and over and read it at a fixed rate, as speakers do,
// while one more connection asks for an API path at regular times.
//
//   httpload --port P [--path /song.mp3] [--readers 2000] [--rate 16384] [--seconds 10]
//            [--pid PID]... [--api /user/test]
//
//   httpload --port P --ask PATH [--token TOKEN] [--connections 1] [--seconds 10]
//
// asks for a path over and over on some connections, see httpload_ask.h. Otherwise
// prints one line: CPU and threads of the server's processes, bytes read, readers that fell behind,
// and the API's answer times.
#include "httpload_ask.h"
#include "process.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <string>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

struct Options {
    int port = 0;
    int readers = 2000;
    long rate = 16384; ///< bytes per second and reader: 128 kbit/s
    int seconds = 10;
    std::string path = "/song.mp3";
    std::string api; ///< posted to; empty: no API requests
    std::vector<int> pids;
    AskOptions ask; ///< with a path: this and nothing else
};

struct Reader {
    int descriptor = -1;
    long bytes = 0;
    bool failed = false;
};

/// Reads happen in steps of this length, each reader at its own place in it, as players' buffers do.
constexpr milliseconds Step{250};
/// A speaker's receive window: it holds a second of music.
constexpr int ReceiveBuffer = 16384;
constexpr milliseconds ApiInterval{20};

[[noreturn]] void fail(const char* what) {
    std::fprintf(stderr, "httpload: %s: %s\n", what, std::strerror(errno));
    std::exit(1);
}

int connectTo(int port, int receiveBuffer) {
    const int descriptor = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (descriptor < 0)
        fail("socket");
    if (receiveBuffer > 0)
        ::setsockopt(descriptor, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(descriptor, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
        fail("connect");
    const int on = 1;
    ::setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    return descriptor;
}

void sendAll(int descriptor, const std::string& text) {
    if (::send(descriptor, text.data(), text.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(text.size()))
        fail("send");
}

long threadsOf(int pid) {
    const std::filesystem::directory_iterator tasks("/proc/" + std::to_string(pid) + "/task");
    return std::distance(begin(tasks), end(tasks));
}

template<typename Measure>
auto sumOver(const std::vector<int>& pids, Measure measure) {
    decltype(measure(0)) sum = 0;
    for (const int pid : pids)
        sum += measure(pid);
    return sum;
}

class Load {
public:
    explicit Load(Options options)
        : m_options(std::move(options))
        , m_readers(static_cast<std::size_t>(m_options.readers))
        , m_scratch(1 << 18) {}

    void start() {
        const std::string request = "GET " + m_options.path + " HTTP/1.1\r\nHost: bench\r\n\r\n";
        for (Reader& reader : m_readers) {
            reader.descriptor = connectTo(m_options.port, ReceiveBuffer);
            // Enough requests for the whole run, answered one after the other.
            for (int i = 0; i < 4; ++i)
                sendAll(reader.descriptor, request);
        }
        if (!m_options.api.empty())
            startApi();
    }

    void run(milliseconds time) {
        const auto begin = Clock::now();
        const auto end = begin + time;
        auto nextApi = begin;
        long done = 0; // readers served, over all steps
        const auto serve = [&](Clock::time_point until) {
            for (const auto due = (until - begin) * m_options.readers / Step; done < due; ++done)
                read(m_readers[static_cast<std::size_t>(done % m_options.readers)]);
        };
        while (Clock::now() < end) {
            const auto now = Clock::now();
            serve(now);
            if (m_api >= 0 && now >= nextApi && !m_apiWaits) {
                sendApi();
                nextApi += ApiInterval;
            }
            waitForApi(1);
        }
        serve(end); // all have had as many steps
        m_measured = time;
    }

    void report(double cpuMs, long threadsBefore, long threadsNow) {
        const double seconds = std::chrono::duration<double>(m_measured).count();
        const double expected = static_cast<double>(m_options.rate) * seconds;
        long total = 0;
        long behind = 0;
        for (const Reader& reader : m_readers) {
            total += reader.bytes;
            behind += reader.failed || static_cast<double>(reader.bytes) < 0.9 * expected ? 1 : 0;
        }
        std::printf("cpu %.2f%% threads %ld->%ld MB/s %.1f behind %ld", cpuMs / 10 / seconds, threadsBefore,
                    threadsNow, static_cast<double>(total) / seconds / 1e6, behind);
        if (!m_times.empty()) {
            std::sort(m_times.begin(), m_times.end());
            const auto at = [this](double share) {
                return m_times[static_cast<std::size_t>(share * static_cast<double>(m_times.size() - 1))];
            };
            std::printf(" api n %zu p50 %.2f ms p99 %.2f ms max %.2f ms", m_times.size(), at(0.5), at(0.99),
                        at(1));
        }
        std::printf("\n");
    }

    void resetCounts() {
        for (Reader& reader : m_readers)
            reader.bytes = 0;
        m_times.clear();
    }

private:
    void read(Reader& reader) {
        const auto want = static_cast<std::size_t>(m_options.rate * Step.count() / 1000);
        const ssize_t got = ::recv(reader.descriptor, m_scratch.data(), want, MSG_DONTWAIT);
        if (got > 0)
            reader.bytes += got;
        else if (got == 0 || errno != EAGAIN)
            reader.failed = true;
    }

    void startApi() {
        m_api = connectTo(m_options.port, 0);
        m_epoll = ::epoll_create1(EPOLL_CLOEXEC);
        epoll_event event{};
        event.events = EPOLLIN;
        ::epoll_ctl(m_epoll, EPOLL_CTL_ADD, m_api, &event);
    }

    void sendApi() {
        sendAll(m_api, "POST " + m_options.api + " HTTP/1.1\r\nHost: bench\r\nContent-Length: 0\r\n\r\n");
        m_apiSent = Clock::now();
        m_apiWaits = true;
    }

    /// An answer is small enough to come in one piece.
    void waitForApi(int timeout) {
        epoll_event event{};
        if (m_epoll < 0 || ::epoll_wait(m_epoll, &event, 1, timeout) != 1) {
            if (m_epoll < 0)
                ::usleep(1000);
            return;
        }
        if (::recv(m_api, m_scratch.data(), m_scratch.size(), MSG_DONTWAIT) <= 0)
            fail("API connection");
        m_times.push_back(std::chrono::duration<double, std::milli>(Clock::now() - m_apiSent).count());
        m_apiWaits = false;
    }

    const Options m_options;
    std::vector<Reader> m_readers;
    std::vector<char> m_scratch;
    std::vector<double> m_times; ///< ms
    milliseconds m_measured{};
    Clock::time_point m_apiSent{};
    int m_api = -1;
    int m_epoll = -1;
    bool m_apiWaits = false;
};

Options parse(int argc, char** argv) {
    Options options;
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string key = argv[i];
        const char* value = argv[i + 1];
        if (key == "--port")
            options.port = std::atoi(value);
        else if (key == "--readers")
            options.readers = std::max(1, std::atoi(value));
        else if (key == "--rate")
            options.rate = std::atol(value);
        else if (key == "--seconds")
            options.seconds = std::atoi(value);
        else if (key == "--path")
            options.path = value;
        else if (key == "--api")
            options.api = value;
        else if (key == "--ask")
            options.ask.path = value;
        else if (key == "--token")
            options.ask.token = value;
        else if (key == "--connections")
            options.ask.connections = std::max(1, std::atoi(value));
        else if (key == "--pid")
            options.pids.push_back(std::atoi(value));
    }
    if (options.port == 0) {
        std::fprintf(stderr, "usage: httpload --port P [--path /song.mp3] [--readers 2000] [--rate 16384] "
                             "[--seconds 10] [--pid PID]... [--api /user/test]\n"
                             "       httpload --port P --ask PATH [--token TOKEN] [--connections 1] "
                             "[--seconds 10]\n");
        std::exit(2);
    }
    options.ask.port = options.port;
    options.ask.seconds = std::max(1, options.seconds);
    return options;
}

} // namespace

int main(int argc, char** argv) {
    const Options options = parse(argc, argv);
    if (!options.ask.path.empty())
        return ask(options.ask);
    rlimit descriptors{};
    ::getrlimit(RLIMIT_NOFILE, &descriptors);
    descriptors.rlim_cur = descriptors.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &descriptors);

    const long threadsBefore = sumOver(options.pids, threadsOf);
    Load load(options);
    load.start();
    load.run(std::chrono::seconds(2)); // until buffers are full and readers set the pace
    load.resetCounts();
    const double cpuBefore = sumOver(options.pids, cpuMilliseconds);
    load.run(std::chrono::seconds(options.seconds));
    const double cpuMs = sumOver(options.pids, cpuMilliseconds) - cpuBefore;
    load.report(cpuMs, threadsBefore, sumOver(options.pids, threadsOf));
    return 0;
}
