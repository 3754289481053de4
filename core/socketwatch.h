#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <QSocketNotifier>
#include <vector>

struct epoll_event;

/// The socket notifiers of one event dispatcher over one epoll descriptor: each descriptor is
/// registered once with the merged interest of up to three notifiers, level-triggered. Changes of
/// interest reach the kernel just before the next wait, so a notifier that is switched off and on
/// within one turn of the loop costs at most one call. One thread.
class SocketWatch {
public:
    /// `wakeUp`: a descriptor that is always watched for reading and never reported.
    explicit SocketWatch(int wakeUp);
    ~SocketWatch();
    SocketWatch(const SocketWatch&) = delete;
    SocketWatch& operator=(const SocketWatch&) = delete;

    void add(QSocketNotifier* notifier);
    void remove(QSocketNotifier* notifier);
    /// Forgets every notifier.
    void clear();

    /// Waits until something is ready; `timeout` negative: without end. With `sockets` false only for
    /// the wake-up descriptor. True when that one became readable.
    bool wait(std::chrono::milliseconds timeout, bool sockets);

    /// Sends one event to each notifier that the last wait() found ready. Stops early when a nested
    /// loop has waited meanwhile: what is left is found again by the next wait. Returns the count.
    int deliver();

private:
    struct Watched {
        std::array<QSocketNotifier*, 3> notifiers{}; ///< by QSocketNotifier::Type
        std::uint32_t batch = 0;                     ///< of the newest notifier; it gets no older events
        std::uint16_t armed = 0;                     ///< events that the kernel was asked for
        bool isChanged = false;                      ///< on the list of changes
        bool isSuspect = false;   ///< may be another file by now: the kernel must be asked again
        bool alwaysReady = false; ///< a file that epoll does not take
    };

    static std::uint16_t wanted(const Watched& watched);
    void noteChange(int descriptor);
    void applyChanges();
    void apply(int descriptor);
    void arm(int descriptor, std::uint16_t events);
    void disableAll(int descriptor);
    int deliverTo(int descriptor, std::uint32_t events);

    struct Ready {
        int descriptor;
        std::uint32_t events;
    };
    int m_epoll;
    int m_wakeUp;
    std::vector<Watched> m_watched; ///< by descriptor
    std::vector<int> m_changes;
    std::vector<int> m_alwaysReady;
    std::vector<Ready> m_ready;
    std::uint32_t m_batch = 0; ///< count of waits
};
