#pragma once

#include <array>
#include <QtGlobal>
#include <sys/socket.h>
#include <unistd.h>

/// Two connected non-blocking sockets; the loop under test watches the first one.
struct Pair {
    std::array<int, 2> fds{-1, -1};
    Pair() {
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, fds.data()) != 0)
            qFatal("socketpair");
    }
    ~Pair() {
        close(fds[0]);
        close(fds[1]);
    }
    Pair(const Pair&) = delete;
    Pair& operator=(const Pair&) = delete;
    void send() const {
        if (::write(fds[1], "x", 1) != 1)
            qFatal("write");
    }
    void take() const {
        std::array<char, 64> bytes{};
        [[maybe_unused]] const ssize_t got = ::read(fds[0], bytes.data(), bytes.size());
    }
};
