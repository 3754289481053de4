#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <QObject>

/// One timer for a whole fleet: periodic and single-shot deadlines, these with a resolution of `Resolution`,
/// at a cost per deadline that does not depend on how many there are. Main loop only; the owner
/// outlives every Handle. Deadlines with the same interval are spread over it, and each keeps its
/// own period without drift.
class TimingWheel : public QObject {
    Q_OBJECT
public:
    static constexpr std::chrono::milliseconds Resolution{10};
    /// Moments of one interval's deadlines are so far apart: the loop wakes no more often for them.
    static constexpr std::chrono::milliseconds Spread{50};

    /// Ends its deadline when destroyed or reset. Movable, 16 bytes.
    class Handle {
    public:
        Handle() = default;
        Handle(Handle&& other) noexcept;
        Handle& operator=(Handle&& other) noexcept;
        ~Handle() { reset(); }
        void reset();
        bool isActive() const;

    private:
        friend class TimingWheel;
        TimingWheel* m_wheel = nullptr;
        std::uint32_t m_place = 0;
        std::uint32_t m_generation = 0;
    };

    /// What is called when a deadline is due. Implemented by the owner of the Handle, so that a
    /// deadline costs no std::function. `tag` is the number given when it was armed. The callee may
    /// arm, reset and destroy any deadline, its own included.
    class Client {
    public:
        virtual void wheelTimeout(int tag) = 0;
        /// A call is near: the time to ask for memory that it will need (see fetch.h).
        virtual void wheelSoon() const {}

    protected:
        ~Client() = default;
    };

    explicit TimingWheel(QObject* parent = nullptr);
    ~TimingWheel() override;

    /// First called within one interval, then once every `interval` until the handle is reset. Calls
    /// that the loop was too late for by a whole interval are left out, the others come late.
    Handle every(std::chrono::milliseconds interval, Client* client, int tag);
    /// Called once, `delay` from now (never earlier); the handle is inactive from then on.
    Handle once(std::chrono::milliseconds delay, Client* client, int tag);

    int activeCount() const;
    /// Since the wheel was made; the clock that its deadlines go by.
    std::chrono::milliseconds now() const;

protected:
    void timerEvent(QTimerEvent* event) override;

private:
    Handle handleOf(std::uint32_t place);
    void wakeBy(qint64 time);
    void restartTimer();

    struct State;
    std::unique_ptr<State> m_state;
};
