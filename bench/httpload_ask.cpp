#include "httpload_ask.h"

#include <algorithm>
#include <arpa/inet.h>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

struct Asker {
    int descriptor = -1;
    Clock::time_point sent;
    std::string answer;

    /// Whether all of the answer is there; its length stands in its head.
    bool isWhole() const {
        const auto head = answer.find("\r\n\r\n");
        const auto length = answer.find("Content-Length: ");
        return head != std::string::npos && length < head &&
               answer.size() >= head + 4 + std::strtoul(answer.c_str() + length + 16, nullptr, 10);
    }
};

[[noreturn]] void fail(const char* what) {
    std::perror(what);
    std::exit(1);
}

int connectTo(int port) {
    const int descriptor = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (descriptor < 0 || ::connect(descriptor, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
        fail("httpload: connect");
    const int on = 1;
    ::setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    return descriptor;
}

class Asking {
public:
    explicit Asking(const AskOptions& options)
        : m_request("GET " + options.path + " HTTP/1.1\r\nHost: bench\r\n" +
                    (options.token.empty() ? "" : "Authorization: Bearer " + options.token + "\r\n") + "\r\n")
        , m_askers(static_cast<std::size_t>(options.connections))
        , m_epoll(::epoll_create1(EPOLL_CLOEXEC)) {
        for (std::size_t i = 0; i < m_askers.size(); ++i) {
            m_askers[i].descriptor = connectTo(options.port);
            epoll_event event{};
            event.events = EPOLLIN;
            event.data.u64 = i;
            ::epoll_ctl(m_epoll, EPOLL_CTL_ADD, m_askers[i].descriptor, &event);
            send(m_askers[i]);
        }
    }
    ~Asking() {
        for (const Asker& asker : m_askers)
            ::close(asker.descriptor);
        ::close(m_epoll);
    }
    Asking(const Asking&) = delete;
    Asking& operator=(const Asking&) = delete;

    void run(std::chrono::seconds time) {
        m_times.clear();
        m_refused = 0;
        for (const auto end = Clock::now() + time; Clock::now() < end;) {
            std::vector<epoll_event> events(m_askers.size());
            const int ready = ::epoll_wait(m_epoll, events.data(), static_cast<int>(events.size()), 100);
            for (int i = 0; i < ready; ++i)
                receive(m_askers[events[static_cast<std::size_t>(i)].data.u64]);
        }
    }

    int report(int seconds) {
        std::sort(m_times.begin(), m_times.end());
        const auto at = [this](double share) {
            return m_times.empty()
                       ? 0
                       : m_times[static_cast<std::size_t>(share * static_cast<double>(m_times.size() - 1))];
        };
        std::printf("%zu/s p50 %.2f ms p99 %.2f ms max %.2f ms refused %ld\n",
                    m_times.size() / static_cast<std::size_t>(seconds), at(0.5), at(0.99), at(1), m_refused);
        return m_refused == 0 && !m_times.empty() ? 0 : 1;
    }

private:
    void send(Asker& asker) {
        asker.answer.clear();
        asker.sent = Clock::now();
        if (::send(asker.descriptor, m_request.data(), m_request.size(), MSG_NOSIGNAL) !=
            static_cast<ssize_t>(m_request.size()))
            fail("httpload: send");
    }

    void receive(Asker& asker) {
        char buffer[65536];
        const ssize_t got = ::recv(asker.descriptor, buffer, sizeof buffer, MSG_DONTWAIT);
        if (got <= 0)
            fail("httpload: the server hung up");
        asker.answer.append(buffer, static_cast<std::size_t>(got));
        if (!asker.isWhole())
            return;
        m_times.push_back(std::chrono::duration<double, std::milli>(Clock::now() - asker.sent).count());
        m_refused += asker.answer.compare(0, 12, "HTTP/1.1 200") != 0;
        send(asker);
    }

    const std::string m_request;
    std::vector<Asker> m_askers;
    std::vector<double> m_times; ///< ms
    long m_refused = 0;
    const int m_epoll;
};

} // namespace

int ask(const AskOptions& options) {
    Asking asking(options);
    asking.run(std::chrono::seconds(1)); // until workers and connections to the database are there
    asking.run(std::chrono::seconds(options.seconds));
    return asking.report(options.seconds);
}
