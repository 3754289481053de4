#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <QSocketNotifier>
#include <vector>

struct epoll_event;

/// Is told when its descriptor is ready: what a QSocketNotifier is, at a tenth of its memory and time. A
/// fleet of speakers uses it; everybody else has notifiers. On the thread of the loop.
class DescriptorListener {
public:
    /// A broken connection is ready for whatever it is listened to for. The callee may do anything,
    /// deleting itself included.
    virtual void descriptorReady(bool readable, bool writable) = 0;
    /// A call is near: the time to ask for memory that it will need (see fetch.h).
    virtual void descriptorSoon() const {}

protected:
    ~DescriptorListener() = default;
};

/// The socket notifiers and listeners of one event dispatcher over one epoll descriptor: each descriptor is
/// registered once with the merged interest of up to three notifiers and a listener, level-triggered. Changes
/// of interest reach the kernel just before the next wait, so a notifier that is switched off and on within
/// one turn of the loop costs at most one call. One thread.
class SocketWatch {
public:
    /// `wakeUp`: a descriptor that is always watched for reading and never reported.
    explicit SocketWatch(int wakeUp);
    ~SocketWatch();
    SocketWatch(const SocketWatch&) = delete;
    SocketWatch& operator=(const SocketWatch&) = delete;

    void add(QSocketNotifier* notifier);
    void remove(QSocketNotifier* notifier);
    /// Sets the descriptor's one listener and what it waits for. Null: there is none any more, as is to
    /// be said before the descriptor is closed.
    void listen(int descriptor, DescriptorListener* listener, bool forReading, bool forWriting);
    /// Forgets every notifier and listener.
    void clear();

    /// Waits until something is ready; `timeout` negative: without end. With `sockets` false only for
    /// the wake-up descriptor. True when that one became readable.
    bool wait(std::chrono::milliseconds timeout, bool sockets);

    /// Tells each notifier and listener that the last wait() found ready. Stops early when a nested
    /// loop has waited meanwhile: what is left is found again by the next wait. Returns the count.
    int deliver();

private:
    struct Watched {
        std::array<QSocketNotifier*, 3> notifiers{}; ///< by QSocketNotifier::Type
        DescriptorListener* listener = nullptr;
        std::uint32_t batch = 0;    ///< of who came last: he gets no older events
        std::uint16_t listened = 0; ///< events that the listener waits for
        std::uint16_t armed = 0;    ///< events that the kernel was asked for
        bool isChanged = false;     ///< on the list of changes
        bool isSuspect = false;     ///< may be another file by now: the kernel must be asked again
        bool alwaysReady = false;   ///< a file that epoll does not take
    };

    static std::uint16_t wanted(const Watched& watched);
    Watched& watchedAt(int descriptor);
    void noteChange(int descriptor);
    void applyChanges();
    void apply(int descriptor);
    void arm(int descriptor, std::uint16_t events);
    void disableAll(int descriptor);
    int deliverTo(int descriptor, std::uint32_t events);
    int tellListener(const Watched& watched, std::uint32_t events) const;
    void fetchNext(size_t index) const;

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
