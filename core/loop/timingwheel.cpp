#include "core/loop/timingwheel.h"

#include "core/loop/fetch.h"

#include <algorithm>
#include <deque>
#include <QBasicTimer>
#include <QElapsedTimer>
#include <QTimerEvent>
#include <utility>
#include <vector>

namespace {

constexpr qint64 TickMs = TimingWheel::Resolution.count();
constexpr qint64 BucketMs = TimingWheel::Spread.count();
constexpr qint64 OnceTurnMs = 10'240; // of the ring of single calls: the usual delays fit into one turn

struct Member {
    TimingWheel::Client* client; // null: its deadline ended while its bucket was walked
    qint64 due;                  // of a single call; a periodic one comes whenever its bucket does
    std::uint32_t place;
    int tag;
};

// Where a member stands; what a Handle refers to.
struct Place {
    std::uint32_t ring = 0;
    std::uint32_t bucket = 0;
    std::uint32_t index = 0; // in the bucket; free places are linked by it
    std::uint32_t generation = 0;
};

constexpr std::uint32_t None = UINT32_MAX;

// Gives back what a storm of deadlines took: the next one falls into other buckets.
void releaseIfEmpty(std::vector<Member>& members) {
    constexpr size_t WorthKeeping = 8;
    if (members.empty() && members.capacity() > WorthKeeping)
        members = std::vector<Member>();
}

// All periodic deadlines of one interval, or all single ones: a turn is divided into buckets, each of
// which has its moment in the turn. A periodic member never moves.
struct Ring {
    qint64 turn; // ms
    bool isPeriodic;
    std::vector<std::vector<Member>> buckets;
    qint64 next = 0; // number of the next bucket, counted on from the first turn
    int count = 0;
    std::uint32_t armed = 0; // members so far
    // The walk over the newest bucket; nested event loops go on with it.
    std::uint32_t walked = None;
    size_t cursor = 0;
    size_t end = 0; // members that came meanwhile wait for the next turn
    bool hasHoles = false;

    Ring(qint64 turnMs, bool periodic)
        : turn(turnMs)
        , isPeriodic(periodic)
        , buckets(static_cast<size_t>(std::max<qint64>(1, turnMs / (periodic ? BucketMs : TickMs)))) {}

    qint64 size() const { return static_cast<qint64>(buckets.size()); }
    qint64 timeOf(qint64 number) const { return number / size() * turn + number % size() * turn / size(); }
    // The first bucket whose moment is not before `time`.
    qint64 firstFrom(qint64 time) const {
        qint64 number = time / turn * size() + time % turn * size() / turn;
        while (timeOf(number) < time)
            ++number;
        return number;
    }
    qint64 nextNumberOf(std::uint32_t bucket) const {
        return next + (bucket - next % size() + size()) % size();
    }

    // The moment of the next bucket with anybody in it; -1 when there is none.
    qint64 nextTime() const {
        if (walked != None)
            return timeOf(next - 1);
        if (count == 0)
            return -1;
        qint64 number = next;
        while (buckets[static_cast<size_t>(number % size())].empty())
            ++number;
        return timeOf(number);
    }

    // Phases follow the golden ratio: however many members there are, they are spread evenly.
    std::uint32_t spreadBucket() {
        constexpr std::uint32_t GoldenFraction = 0x9E3779B9; // of 2^32
        return static_cast<std::uint32_t>((std::uint64_t{armed++ * GoldenFraction} * buckets.size()) >> 32);
    }

    bool begin(qint64 now) {
        const qint64 latest = firstFrom(now + 1) - 1;
        next = std::max(next, latest - size() + 1); // more than a turn late: every bucket once
        while (next <= latest && buckets[static_cast<size_t>(next % size())].empty())
            ++next;
        if (next > latest)
            return false;
        walked = static_cast<std::uint32_t>(next++ % size());
        cursor = 0;
        end = buckets[walked].size();
        return true;
    }
};

} // namespace

struct TimingWheel::State {
    std::deque<Ring> rings;
    std::vector<Place> places;
    std::uint32_t freePlaces = None;
    int active = 0;
    qint64 wakeTime = -1; // what the timer waits for; -1 when it is off
    QBasicTimer timer;
    QElapsedTimer clock;

    State() {
        rings.emplace_back(OnceTurnMs, false);
        clock.start();
    }

    // What is left of the current millisecond does not count as waited.
    qint64 after(qint64 delay) const { return clock.elapsed() + 1 + delay; }

    std::uint32_t ringOf(qint64 interval);
    std::uint32_t arm(std::uint32_t ring, std::uint32_t bucket, qint64 due, Client* client, int tag);
    std::uint32_t armPeriodic(qint64 interval, Client* client, int tag);
    std::uint32_t armOnce(qint64 due, Client* client, int tag);
    void disarm(std::uint32_t place);
    qint64 nextTime() const;
    void endWalk(Ring& ring);
    void callNext(Ring& ring, qint64 now);
    void turn(Ring& ring, qint64 now);
};

std::uint32_t TimingWheel::State::ringOf(qint64 interval) {
    std::uint32_t index = 1; // behind the ring of single calls
    while (index < rings.size() && rings[index].turn != interval)
        ++index;
    if (index == rings.size())
        rings.emplace_back(interval, true);
    Ring& ring = rings[index];
    if (ring.count == 0 && ring.walked == None)
        ring.next = ring.firstFrom(clock.elapsed() + 1);
    return index;
}

std::uint32_t TimingWheel::State::arm(std::uint32_t ring, std::uint32_t bucket, qint64 due, Client* client,
                                      int tag) {
    std::uint32_t place = freePlaces;
    if (place == None) {
        place = static_cast<std::uint32_t>(places.size());
        places.emplace_back();
    } else {
        freePlaces = places[place].index;
    }
    std::vector<Member>& members = rings[ring].buckets[bucket];
    places[place].ring = ring;
    places[place].bucket = bucket;
    places[place].index = static_cast<std::uint32_t>(members.size());
    members.push_back({client, due, place, tag});
    ++rings[ring].count;
    ++active;
    return place;
}

std::uint32_t TimingWheel::State::armPeriodic(qint64 interval, Client* client, int tag) {
    const std::uint32_t ring = ringOf(interval);
    return arm(ring, rings[ring].spreadBucket(), 0, client, tag);
}

std::uint32_t TimingWheel::State::armOnce(qint64 due, Client* client, int tag) {
    Ring& ring = rings[0];
    if (ring.count == 0 && ring.walked == None)
        ring.next = ring.firstFrom(clock.elapsed() + 1);
    return arm(0, static_cast<std::uint32_t>(ring.firstFrom(due) % ring.size()), due, client, tag);
}

void TimingWheel::State::disarm(std::uint32_t place) {
    Place& at = places[place];
    Ring& ring = rings[at.ring];
    std::vector<Member>& members = ring.buckets[at.bucket];
    if (ring.walked == at.bucket) {
        members[at.index].client = nullptr;
        ring.hasHoles = true;
    } else {
        members[at.index] = members.back();
        places[members[at.index].place].index = at.index;
        members.pop_back();
        releaseIfEmpty(members);
    }
    ++at.generation;
    at.index = freePlaces;
    freePlaces = place;
    --ring.count;
    --active;
}

qint64 TimingWheel::State::nextTime() const {
    qint64 first = -1;
    for (const Ring& ring : rings) {
        const qint64 time = ring.nextTime();
        if (time >= 0 && (first < 0 || time < first))
            first = time;
    }
    return first;
}

void TimingWheel::State::endWalk(Ring& ring) {
    std::vector<Member>& members = ring.buckets[ring.walked];
    ring.walked = None;
    ring.cursor = ring.end = 0;
    if (!std::exchange(ring.hasHoles, false))
        return;
    members.erase(std::remove_if(members.begin(), members.end(),
                                 [](const Member& member) { return member.client == nullptr; }),
                  members.end());
    for (size_t index = 0; index < members.size(); ++index)
        places[members[index].place].index = static_cast<std::uint32_t>(index);
    releaseIfEmpty(members);
}

void TimingWheel::State::callNext(Ring& ring, qint64 now) {
    const std::vector<Member>& members = ring.buckets[ring.walked];
    fetchAhead(
        members, ring.cursor, [](const Member& member) { fetchObject(member.client); },
        [](const Member& member) {
            if (member.client)
                member.client->wheelSoon();
        });
    const Member member = members[ring.cursor++];
    if (!member.client || member.due > now) // due in a later turn
        return;
    if (!ring.isPeriodic)
        disarm(member.place);
    member.client->wheelTimeout(member.tag);
}

// May be entered again from a nested event loop inside a client: the ring is whole at each call.
void TimingWheel::State::turn(Ring& ring, qint64 now) {
    do {
        while (ring.cursor < ring.end)
            callNext(ring, now);
        if (ring.walked != None)
            endWalk(ring);
    } while (ring.begin(now));
}

TimingWheel::Handle::Handle(Handle&& other) noexcept
    : m_wheel(std::exchange(other.m_wheel, nullptr))
    , m_place(other.m_place)
    , m_generation(other.m_generation) {}

TimingWheel::Handle& TimingWheel::Handle::operator=(Handle&& other) noexcept {
    if (this != &other) {
        reset();
        m_wheel = std::exchange(other.m_wheel, nullptr);
        m_place = other.m_place;
        m_generation = other.m_generation;
    }
    return *this;
}

void TimingWheel::Handle::reset() {
    if (isActive())
        m_wheel->m_state->disarm(m_place);
    m_wheel = nullptr;
}

bool TimingWheel::Handle::isActive() const {
    return m_wheel != nullptr && m_wheel->m_state->places[m_place].generation == m_generation;
}

TimingWheel::TimingWheel(QObject* parent)
    : QObject(parent)
    , m_state(std::make_unique<State>()) {}

TimingWheel::~TimingWheel() = default;

TimingWheel::Handle TimingWheel::every(std::chrono::milliseconds interval, Client* client, int tag) {
    return handleOf(m_state->armPeriodic(std::max<qint64>(TickMs, interval.count()), client, tag));
}

TimingWheel::Handle TimingWheel::once(std::chrono::milliseconds delay, Client* client, int tag) {
    return handleOf(m_state->armOnce(m_state->after(std::max<qint64>(0, delay.count())), client, tag));
}

TimingWheel::Handle TimingWheel::handleOf(std::uint32_t place) {
    const Place& at = m_state->places[place];
    const Ring& ring = m_state->rings[at.ring];
    wakeBy(ring.timeOf(ring.nextNumberOf(at.bucket)));
    Handle handle;
    handle.m_wheel = this;
    handle.m_place = place;
    handle.m_generation = at.generation;
    return handle;
}

int TimingWheel::activeCount() const {
    return m_state->active;
}

std::chrono::milliseconds TimingWheel::now() const {
    return std::chrono::milliseconds(m_state->clock.elapsed());
}

// The timer runs to the next bucket with anybody in it, not to every one. A deadline that was reset
// leaves it running: one needless wake-up.
void TimingWheel::wakeBy(qint64 time) {
    if (m_state->wakeTime >= 0 && m_state->wakeTime <= time)
        return;
    m_state->wakeTime = time;
    const qint64 wait = std::max<qint64>(0, time - m_state->clock.elapsed());
    m_state->timer.start(static_cast<int>(wait), Qt::PreciseTimer, this);
}

void TimingWheel::timerEvent(QTimerEvent* event) {
    if (event->timerId() != m_state->timer.timerId())
        return QObject::timerEvent(event);
    // A timer is not delivered again while its event is being handled: a fresh one, so that the wheel
    // goes on when a client runs a nested event loop.
    restartTimer();
    const qint64 now = m_state->clock.elapsed();
    for (size_t ring = 0; ring < m_state->rings.size(); ++ring)
        m_state->turn(m_state->rings[ring], now);
    restartTimer();
}

void TimingWheel::restartTimer() {
    m_state->timer.stop();
    m_state->wakeTime = -1;
    const qint64 next = m_state->nextTime();
    if (next >= 0)
        wakeBy(next);
}
