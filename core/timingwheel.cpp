#include "core/timingwheel.h"

#include <array>
#include <deque>
#include <QBasicTimer>
#include <QElapsedTimer>
#include <QHash>
#include <QTimerEvent>

namespace {

constexpr std::uint32_t Slots = 1024; // 10.24 s a turn: the usual intervals pass at most once round
constexpr std::uint32_t Due = Slots;  // the list of entries whose slot has come
constexpr std::uint32_t None = UINT32_MAX;
constexpr qint64 TickMs = TimingWheel::Resolution.count();

// 40 bytes. The first Slots + 1 entries are the heads of circular lists.
struct Entry {
    qint64 due = 0;
    TimingWheel::Client* client = nullptr; // null: free, `next` links the free entries
    std::uint32_t interval = 0;            // ms; 0: once
    int tag = 0;
    std::uint32_t generation = 0;
    std::uint32_t next = None;
    std::uint32_t previous = None;
};

// One bit a slot: whether its list holds anything.
class SlotBits {
public:
    void set(std::uint32_t slot) { m_words.at(slot / 64) |= bit(slot); }
    void clear(std::uint32_t slot) { m_words.at(slot / 64) &= ~bit(slot); }

    // Steps from `slot` to the first set bit at or behind it, going round once; None when all are clear.
    std::uint32_t distanceToNext(std::uint32_t slot) const {
        std::uint64_t word = m_words.at(slot / 64) & ~(bit(slot) - 1);
        std::uint32_t at = slot / 64;
        for (std::uint32_t i = 0; i <= m_words.size(); ++i) {
            if (word != 0) {
                const auto found = at * 64 + static_cast<std::uint32_t>(__builtin_ctzll(word));
                return (found - slot) & (Slots - 1);
            }
            at = (at + 1) % (Slots / 64);
            word = m_words.at(at);
        }
        return None;
    }

private:
    static std::uint64_t bit(std::uint32_t slot) { return std::uint64_t{1} << (slot % 64); }
    std::array<std::uint64_t, Slots / 64> m_words{};
};

} // namespace

struct TimingWheel::State {
    std::deque<Entry> entries;
    SlotBits occupied;
    std::uint32_t freeList = None;
    int active = 0;
    qint64 tick = 0;      // every tick up to this one was handled
    qint64 wakeTick = -1; // what the timer waits for; -1 when it is off
    QBasicTimer timer;
    QElapsedTimer clock;
    QHash<std::uint32_t, std::uint32_t> armedOf; // periodic deadlines armed so far, by interval

    State()
        : entries(Slots + 1) {
        for (std::uint32_t head = 0; head <= Slots; ++head)
            entries[head].next = entries[head].previous = head;
        clock.start();
    }

    // What is left of the current millisecond does not count as waited.
    qint64 after(qint64 delay) const { return clock.elapsed() + 1 + delay; }
    static qint64 tickOf(qint64 due) { return (due + TickMs - 1) / TickMs; }

    bool isEmpty(std::uint32_t head) const { return entries[head].next == head; }

    void link(std::uint32_t head, std::uint32_t index) {
        Entry& entry = entries[index];
        entry.next = head;
        entry.previous = entries[head].previous;
        entries[entry.previous].next = index;
        entries[head].previous = index;
    }

    void unlink(std::uint32_t index) {
        const Entry& entry = entries[index];
        entries[entry.previous].next = entry.next;
        entries[entry.next].previous = entry.previous;
        if (entry.next == entry.previous && entry.next < Slots)
            occupied.clear(entry.next);
    }

    void linkByDue(std::uint32_t index) {
        const auto slot =
            static_cast<std::uint32_t>(std::max(tickOf(entries[index].due), tick + 1) & (Slots - 1));
        link(slot, index);
        occupied.set(slot);
    }

    std::uint32_t arm(qint64 due, std::uint32_t interval, Client* client, int tag);
    void disarm(std::uint32_t index);
    qint64 firstDue(std::uint32_t interval);
    qint64 nextTick() const;
    void turnTo(qint64 toTick);
    void call(std::uint32_t index);
    void handle(qint64 now);
};

std::uint32_t TimingWheel::State::arm(qint64 due, std::uint32_t interval, Client* client, int tag) {
    if (active == 0)
        tick = std::max(tick, clock.elapsed() / TickMs);
    std::uint32_t index = freeList;
    if (index == None) {
        index = static_cast<std::uint32_t>(entries.size());
        entries.emplace_back();
    } else {
        freeList = entries[index].next;
    }
    Entry& entry = entries[index];
    entry.due = due;
    entry.interval = interval;
    entry.client = client;
    entry.tag = tag;
    linkByDue(index);
    ++active;
    return index;
}

void TimingWheel::State::disarm(std::uint32_t index) {
    unlink(index);
    Entry& entry = entries[index];
    entry.client = nullptr;
    ++entry.generation;
    entry.next = freeList;
    freeList = index;
    --active;
}

// Phases of one interval follow the golden ratio: however many there are, they are spread evenly.
qint64 TimingWheel::State::firstDue(std::uint32_t interval) {
    constexpr std::uint32_t GoldenFraction = 0x9E3779B9; // of 2^32
    const std::uint32_t turn = armedOf[interval]++ * GoldenFraction;
    const auto phase = static_cast<qint64>((std::uint64_t{turn} * interval) >> 32);
    const qint64 now = clock.elapsed();
    const qint64 wait = (phase - now % interval + interval) % interval;
    return now + (wait == 0 ? interval : wait);
}

// The next tick whose slot holds something; -1 when nothing is armed.
qint64 TimingWheel::State::nextTick() const {
    if (!isEmpty(Due))
        return tick;
    const std::uint32_t steps = occupied.distanceToNext(static_cast<std::uint32_t>((tick + 1) & (Slots - 1)));
    return steps == None ? -1 : tick + 1 + steps;
}

void TimingWheel::State::turnTo(qint64 toTick) {
    tick = toTick;
    const auto slot = static_cast<std::uint32_t>(tick & (Slots - 1));
    if (isEmpty(slot))
        return;
    Entry& head = entries[slot];
    Entry& due = entries[Due];
    due.next = head.next;
    due.previous = head.previous;
    entries[due.next].previous = Due;
    entries[due.previous].next = Due;
    head.next = head.previous = slot;
    occupied.clear(slot);
}

// The entry is back in its place before the client is called: it may do anything to it.
void TimingWheel::State::call(std::uint32_t index) {
    Entry& entry = entries[index];
    Client* const client = entry.client;
    const int tag = entry.tag;
    if (entry.interval == 0) {
        disarm(index);
    } else {
        unlink(index);
        const qint64 late = std::max<qint64>(0, clock.elapsed() - entry.due);
        entry.due += (late / entry.interval + 1) * entry.interval;
        linkByDue(index);
    }
    client->wheelTimeout(tag);
}

// May be entered again from a nested event loop inside a client: the state is whole at each call.
void TimingWheel::State::handle(qint64 now) {
    for (;;) {
        while (!isEmpty(Due)) {
            const std::uint32_t index = entries[Due].next;
            if (tickOf(entries[index].due) <= tick) {
                call(index);
            } else { // due in a later turn of the wheel
                unlink(index);
                linkByDue(index);
            }
        }
        const qint64 next = nextTick();
        if (next < 0 || next > now)
            return;
        turnTo(next);
    }
}

TimingWheel::Handle::Handle(Handle&& other) noexcept
    : m_wheel(std::exchange(other.m_wheel, nullptr))
    , m_slot(other.m_slot)
    , m_generation(other.m_generation) {}

TimingWheel::Handle& TimingWheel::Handle::operator=(Handle&& other) noexcept {
    if (this != &other) {
        reset();
        m_wheel = std::exchange(other.m_wheel, nullptr);
        m_slot = other.m_slot;
        m_generation = other.m_generation;
    }
    return *this;
}

void TimingWheel::Handle::reset() {
    if (isActive())
        m_wheel->m_state->disarm(m_slot);
    m_wheel = nullptr;
}

bool TimingWheel::Handle::isActive() const {
    return m_wheel != nullptr && m_wheel->m_state->entries[m_slot].generation == m_generation;
}

TimingWheel::TimingWheel(QObject* parent)
    : QObject(parent)
    , m_state(std::make_unique<State>()) {}

TimingWheel::~TimingWheel() = default;

TimingWheel::Handle TimingWheel::every(std::chrono::milliseconds interval, Client* client, int tag) {
    const auto ms = static_cast<std::uint32_t>(std::max<qint64>(TickMs, interval.count()));
    return handleOf(m_state->arm(m_state->firstDue(ms), ms, client, tag));
}

TimingWheel::Handle TimingWheel::once(std::chrono::milliseconds delay, Client* client, int tag) {
    return handleOf(m_state->arm(m_state->after(std::max<qint64>(0, delay.count())), 0, client, tag));
}

TimingWheel::Handle TimingWheel::handleOf(std::uint32_t index) {
    Handle handle;
    handle.m_wheel = this;
    handle.m_slot = index;
    handle.m_generation = m_state->entries[index].generation;
    wakeInTime();
    return handle;
}

int TimingWheel::activeCount() const {
    return m_state->active;
}

// The timer runs to the next occupied slot, not at every tick. A deadline that was reset leaves it
// running: one needless wake-up.
void TimingWheel::wakeInTime() {
    const qint64 next = m_state->nextTick();
    if (next < 0) {
        m_state->timer.stop();
        m_state->wakeTick = -1;
    } else if (m_state->wakeTick < 0 || next < m_state->wakeTick) {
        m_state->wakeTick = next;
        const qint64 wait = std::max<qint64>(0, next * TickMs - m_state->clock.elapsed());
        m_state->timer.start(static_cast<int>(wait), Qt::PreciseTimer, this);
    }
}

void TimingWheel::timerEvent(QTimerEvent* event) {
    if (event->timerId() != m_state->timer.timerId())
        return QObject::timerEvent(event);
    // A timer is not delivered again while its event is being handled: a fresh one, so that the wheel
    // goes on when a client runs a nested event loop.
    restartTimer();
    m_state->handle(m_state->clock.elapsed() / TickMs);
    restartTimer();
}

void TimingWheel::restartTimer() {
    m_state->timer.stop();
    m_state->wakeTick = -1;
    wakeInTime();
}
