#include "support/testmain.h"
#include "zones/zone.h"

#include <random>

using namespace zones;
using namespace std::chrono_literals;

namespace {

/// The rules once more, as plainly as they can be put: one list of wishes in the order of their arrival,
/// looked through from its beginning for everything.
class Model {
public:
    void returned(int told, Time now) {
        const bool wasHere = std::exchange(here, true);
        level = before = told;
        drop(now);
        if (wasHere)
            return;
        if (base != 0)
            level = 0;
        choose(nullptr, now);
        if (level == 0)
            level = told;
    }
    void lost(Time now) {
        here = false;
        Wish* const wish = holding();
        if (!wish)
            return;
        tell(*wish->order, Fate::Lost, 0);
        if (wish->order->resume == Resume::None)
            return remove(wish);
        Time left = Never;
        if (!wish->order->isDriven) {
            left = -placeOf(*wish, now);
            for (int i = wish->title; i < wish->order->count(); ++i)
                left += wish->order->length(i) > 0ms ? wish->order->length(i) : Time(1h);
            left = now + std::max(left, 0ms);
        }
        wish->from = placeOf(*wish, now);
        wish->state = Wish::Broken;
        wish->until = left;
        toEnd(wish);
    }
    void want(const Order& order, Time now) {
        drop(now);
        const Wish* const holder = holding();
        const int held = holder ? holder->order->priority : -1;
        const quint64 by = holder ? holder->order->id : 0;
        bool wins = order.priority > held || (order.priority == 255);
        wins = wins || (order.priority == held && order.whenBusy == WhenBusy::Interrupt);
        wins = wins || (order.lastHolds && (held < 224 || holder->order->lastHolds));
        if (!wins && order.whenBusy == WhenBusy::Queue) {
            tell(order, Fate::Waiting, by);
            wishes.push_back({&order, Wish::New, now + order.queueSpan});
            wishes.back().by = by;
        } else if (!wins) {
            tell(order, order.whenBusy == WhenBusy::Skip ? Fate::Busy : Fate::LowerPriority, by);
        } else {
            push(order, now);
            wishes.push_back({&order, Wish::New, Never});
            hold(wishes.size() - 1, now);
        }
    }
    void end(quint64 id, Fate fate, Time now) {
        for (size_t i = 0; i < wishes.size(); ++i) {
            if (wishes[i].order->id == id)
                return endOne(i, fate, true, now);
        }
    }
    void stopYielding(Time now) {
        const auto yields = [](const Order& order) {
            return order.priority < 224 || order.lastHolds;
        };
        for (size_t i = 0; i < wishes.size();) {
            const bool isOver = wishes[i].state != Wish::Holding && yields(*wishes[i].order);
            if (isOver)
                endOne(i, Fate::Stopped, true, now);
            else
                ++i;
        }
        if (const Wish* wish = holding(); wish && yields(*wish->order))
            endOne(size_t(wish - wishes.data()), Fate::Stopped, true, now);
    }
    void began(Time now) {
        Wish* const wish = holding();
        if (wish && !wish->heard)
            wish->heard = true, wish->since = now;
    }
    void idle(Time now) {
        Wish* const wish = holding();
        if (wish && !wish->order->isDriven && (wish->heard || now - wish->since >= 2s))
            advance(*wish, false, now);
    }
    void levelIs(int told, Time now) {
        const bool isOld = told == before && base != 0 && now - setAt < 3s;
        if (told == level || isOld)
            return;
        level = told;
        base = base != 0 ? told : 0;
    }
    void passed(Time now) {
        drop(now);
        for (Wish* wish = holding(); wish && std::min(wish->order->ends, overOf(*wish)) <= now;
             wish = holding()) {
            if (wish->order->ends <= now)
                endOne(size_t(wish - wishes.data()), Fate::Completed, true, now);
            else
                advance(*wish, wish->order->length(wish->title) == 0ms, now);
        }
    }
    Time due() const {
        Time first = Never;
        for (const Wish& wish : wishes)
            first =
                std::min({first, wish.order->ends, wish.state == Wish::Holding ? overOf(wish) : wish.until});
        return first;
    }
    const Order* holder() {
        const Wish* const wish = holding();
        return wish ? wish->order : nullptr;
    }

    Actions out;
    int base = 0;

private:
    struct Wish {
        enum State { New, Holding, Pushed, Broken };
        const Order* order;
        State state;
        Time until;
        int title = 0;
        Time from{0}, since{0};
        bool heard = false;
        quint64 by = 0;
    };
    Wish* holding() {
        for (Wish& wish : wishes) {
            if (wish.state == Wish::Holding)
                return &wish;
        }
        return nullptr;
    }
    static Time placeOf(const Wish& wish, Time now) {
        const Time length = wish.order->length(wish.title);
        const Time place = wish.from + now - wish.since;
        return length > 0ms && place > length ? length : place;
    }
    static Time overOf(const Wish& wish) {
        if (wish.order->isDriven)
            return Never;
        const Time length = wish.order->length(wish.title);
        if (length == 0ms)
            return wish.since + 1h;
        return wish.since + length - wish.from + (wish.heard ? 5s : 0s);
    }
    void tell(const Order& order, Fate fate, quint64 by) {
        out.push_back({Action::Tell, &order, 0, 0ms, 0, fate, by});
    }
    void remove(const Wish* wish) { wishes.erase(wishes.begin() + (wish - wishes.data())); }
    void toEnd(Wish* wish) { std::rotate(wish, wish + 1, wishes.data() + wishes.size()); }
    void push(const Order& by, Time now) {
        Wish* const wish = holding();
        if (!wish)
            return;
        if (wish->order->isStream != by.isStream)
            out.push_back({Action::Silence, wish->order});
        const bool goesOn = wish->order->resume != Resume::None;
        tell(*wish->order, goesOn ? Fate::Interrupted : Fate::Overruled, by.id);
        if (!goesOn)
            return remove(wish);
        wish->from = placeOf(*wish, now);
        wish->state = Wish::Pushed;
        wish->until = Never;
        wish->by = by.id;
        toEnd(wish);
    }
    void endOne(size_t index, Fate fate, bool sounds, Time now) {
        const Wish wish = wishes[index];
        wishes.erase(wishes.begin() + int(index));
        tell(*wish.order, fate, 0);
        if (wish.state != Wish::Holding)
            return;
        drop(now);
        choose(sounds ? wish.order : nullptr, now);
    }
    void advance(Wish& wish, bool sounds, Time now) {
        if (wish.title + 1 == wish.order->count())
            return endOne(size_t(&wish - wishes.data()), Fate::Completed, sounds, now);
        ++wish.title;
        wish.from = 0ms;
        wish.since = now;
        wish.heard = false;
        out.push_back({Action::Play, wish.order, wish.title, wish.from});
    }
    void drop(Time now) {
        for (size_t i = 0; i < wishes.size();) {
            const Wish wish = wishes[i];
            if (wish.state == Wish::Holding || (wish.until > now && wish.order->ends > now)) {
                ++i;
                continue;
            }
            wishes.erase(wishes.begin() + int(i));
            if (wish.state == Wish::New)
                tell(*wish.order, Fate::BusyTooLong, wish.by);
            if (wish.state == Wish::Pushed)
                tell(*wish.order, Fate::Overruled, wish.by);
            if (wish.state == Wish::Broken)
                tell(*wish.order, Fate::Lost, 0);
        }
    }
    void choose(const Order* sounding, Time now) {
        size_t best = wishes.size();
        for (int priority = 255; here && priority >= 0 && best == wishes.size(); --priority) {
            for (size_t i = 0; i < wishes.size();
                 ++i) { // the last that was pushed away, else the first that waits
                if (wishes[i].order->priority != priority)
                    continue;
                if (wishes[i].state != Wish::New || best == wishes.size())
                    best = i;
            }
        }
        const bool isFound = best < wishes.size();
        if (sounding && (!isFound || wishes[best].order->isStream || sounding->isStream))
            out.push_back({Action::Silence, sounding});
        if (isFound)
            hold(best, now);
        else if (here)
            volume(0, now);
    }
    void hold(size_t index, Time now) {
        Wish& wish = wishes[index];
        const bool isFresh = wish.state == Wish::New;
        if (!isFresh && wish.order->resume == Resume::Start)
            wish.title = 0, wish.from = 0ms;
        wish.state = Wish::Holding;
        wish.since = now;
        wish.heard = false;
        volume(wish.order->volume, now);
        if (!isFresh || !wish.order->isSent)
            out.push_back({Action::Play, wish.order, wish.title, wish.from});
        tell(*wish.order, Fate::Playing, 0);
    }
    void volume(int asked, Time now) {
        base = asked && !base ? level : base;
        const int wanted = asked ? asked : base;
        base = asked ? base : 0;
        if (wanted && wanted != level) {
            before = std::exchange(level, wanted);
            setAt = now;
            out.push_back({Action::Volume, nullptr, 0, 0ms, wanted});
        }
    }

    std::vector<Wish> wishes;
    bool here = false;
    int level = 0, before = 0;
    Time setAt{0};
};

QByteArray textOf(const Actions& actions) {
    static const char* const fates[] = {"playing",   "waiting", "interrupted", "completed",   "stopped",
                                        "overruled", "lost",    "busy",        "busytoolong", "lower"};
    QByteArrayList words;
    for (const Action& action : actions) {
        const QByteArray id = action.order ? QByteArray::number(action.order->id) : QByteArray();
        const QByteArray by = action.by ? '/' + QByteArray::number(action.by) : QByteArray();
        switch (action.kind) {
        case Action::Play:
            words << "play " + id + '.' + QByteArray::number(action.title) + '@' +
                         QByteArray::number(qint64(action.from.count()));
            break;
        case Action::Silence:
            words << "silence " + id;
            break;
        case Action::Volume:
            words << "vol " + QByteArray::number(action.level);
            break;
        case Action::Tell:
            words << fates[int(action.fate)] + (' ' + id) + by;
            break;
        }
    }
    return words.join(", ");
}

QByteArray historyOf(const std::vector<std::pair<QByteArray, Actions>>& steps) {
    QByteArray text;
    for (const auto& [step, actions] : steps)
        text += step + ": " + textOf(actions) + '\n';
    return text;
}

Order order(quint64 id, int priority, WhenBusy whenBusy, Resume resume, int volume = 0,
            std::vector<Time> titles = {60s}) {
    Order made;
    made.id = id;
    made.priority = priority;
    made.whenBusy = whenBusy;
    made.resume = resume;
    made.volume = volume;
    made.queueSpan = 10s;
    made.titles = std::move(titles);
    return made;
}

} // namespace

class ZonesTest : public QObject {
    Q_OBJECT
private slots:
    /// Steps: "s t ..." with the time in seconds; orders are those of the table in the test.
    void scenarios_data() {
        QTest::addColumn<QByteArrayList>("steps");
        const auto row = [](const char* name, const QByteArrayList& steps) {
            QTest::newRow(name) << steps;
        };
        row("music, page, alarm, and back",
            {"0 want 1", "vol 10, play 1.0@0, playing 1", "1 began", "", "11 want 2",
             "interrupted 1/2, vol 20, play 2.0@0, playing 2", "12 began", "", "13 want 4",
             "overruled 2/4, vol 25, play 4.0@0, playing 4", "14 end 4",
             "completed 4, vol 10, play 1.0@10000, playing 1", "15 end 1", "completed 1, silence 1, vol 15"});
        row("an equal one waits in turn, behind what was interrupted",
            {"0 want 3", "vol 18, play 3.0@0, playing 3", "1 want 5", "waiting 5/3", "2 want 2",
             "interrupted 3/2, vol 20, play 2.0@0, playing 2", "3 idle", "", "5 idle",
             "completed 2, vol 18, play 3.0@0, playing 3", "11 pass", "busytoolong 5/3"});
        row("refused",
            {"0 want 4", "vol 25, play 4.0@0, playing 4", "1 want 1", "lower 1/4", "1 want 6", "busy 6/4"});
        row("somebody's volume is the new base", {"0 want 2", "vol 20, play 2.0@0, playing 2", "1 level 15",
                                                  "", "2 level 12", "", "3 end 2", "completed 2, silence 2"});
        row("away when its volume should go back",
            {"0 want 2", "vol 20, play 2.0@0, playing 2", "1 lost", "lost 2", "3 return 20", "vol 15"});
        row("the last command of an older path holds, but below 224",
            {"0 want 2", "vol 20, play 2.0@0, playing 2", "1 want 7", "overruled 2/7, vol 15, playing 7",
             "2 want 4", "overruled 7/4, vol 25, play 4.0@0, playing 4", "3 want 7", "lower 7/4"});
        row("titles by what is told, else by their length",
            {"0 want 8", "play 8.0@0, playing 8", "1 began", "", "4 idle", "play 8.1@0", "4 idle", "",
             "9 pass", "play 8.2@0", "9 began", "", "13 pass", "", "19 pass", "play 8.3@0"});
        row("its own time is not extended", {"0 want 9", "play 9.0@0, playing 9", "10 want 2",
                                             "interrupted 9/2, vol 20, play 2.0@0, playing 2", "30 pass",
                                             "overruled 9/2, completed 2, vol 15"});
    }
    void scenarios() {
        std::map<int, Order> orders{{1, order(1, 20, WhenBusy::Interrupt, Resume::Position, 10)},
                                    {2, order(2, 100, WhenBusy::Interrupt, Resume::None, 20)},
                                    {3, order(3, 60, WhenBusy::Interrupt, Resume::Start, 18)},
                                    {4, order(4, 240, WhenBusy::Interrupt, Resume::None, 25)},
                                    {5, order(5, 60, WhenBusy::Queue, Resume::None)},
                                    {6, order(6, 100, WhenBusy::Skip, Resume::None)},
                                    {7, order(7, 100, WhenBusy::Interrupt, Resume::None, 0, {0s})},
                                    {8, order(8, 20, WhenBusy::Interrupt, Resume::Position, 0, {5s, 3s})},
                                    {9, order(9, 90, WhenBusy::Interrupt, Resume::Position)}};
        orders[2].titles = {3s};
        orders[7].lastHolds = orders[7].isSent = true;
        orders[8].rounds = 2;
        orders[9].ends = 30s;
        orders[9].isDriven = true;
        Zone zone;
        Actions actions;
        zone.returned(15, 0s, actions);
        QFETCH(const QByteArrayList, steps);
        for (int i = 0; i < steps.size(); i += 2) {
            const QByteArrayList words = steps.at(i).split(' ');
            const Time now = std::chrono::seconds(words.at(0).toInt());
            const int value = words.value(2).toInt();
            actions.clear();
            if (words.at(1) == "want")
                zone.want(orders.at(value), now, actions);
            else if (words.at(1) == "end")
                zone.end(quint64(value), Fate::Completed, now, actions);
            else if (words.at(1) == "began")
                zone.began(now);
            else if (words.at(1) == "idle")
                zone.idle(now, actions);
            else if (words.at(1) == "level")
                zone.levelIs(value, now);
            else if (words.at(1) == "lost")
                zone.lost(now, actions);
            else if (words.at(1) == "return")
                zone.returned(value, now, actions);
            else
                zone.passed(now, actions);
            QCOMPARE(textOf(actions), steps.at(i + 1));
        }
    }

    /// Whatever happens in whatever order, zone and model want the same of the speaker.
    void engineAgainstModel() {
        std::mt19937 random(20260101);
        const auto upTo = [&random](int limit) {
            return int(random() % unsigned(limit));
        };
        constexpr int Histories = 100'000;
        qint64 plays = 0;
        for (int history = 0; history < Histories; ++history) {
            std::vector<Order> orders(6);
            quint64 id = 0;
            for (Order& made : orders) {
                made = order(
                    ++id, std::vector<int>{20, 60, 100, 224, 255}[size_t(upTo(5))], WhenBusy(upTo(3)),
                    Resume(upTo(3)), upTo(2) ? 5 + upTo(4) : 0,
                    std::vector<Time>(size_t(1 + upTo(2)), std::vector<Time>{0s, 3s, 8s}[size_t(upTo(3))]));
                made.queueSpan = std::chrono::seconds(upTo(12));
                made.rounds = 1 + upTo(2);
                made.isDriven = upTo(5) == 0;
                made.isStream = made.isDriven && upTo(2);
                made.isSent = made.isDriven || upTo(6) == 0;
                made.lastHolds = made.isSent && upTo(2);
                made.ends = upTo(4) ? Never : Time(std::chrono::seconds(5 + upTo(40)));
            }
            Zone zone;
            Model model;
            Actions actions;
            Time now{1000};
            std::vector<std::pair<QByteArray, Actions>> told;
            for (int step = 0; step < 24; ++step) {
                now += std::chrono::milliseconds(upTo(3) ? upTo(4000) : 0);
                const int what = step == 0 ? 10 : upTo(14);
                const int level = 5 + upTo(4);
                const Order& some = orders[size_t(upTo(6))];
                actions.clear();
                model.out.clear();
                if (what < 5) {
                    if (!zone.isConnected() || zone.hasClaim(some.id))
                        continue;
                    zone.want(some, now, actions), model.want(some, now);
                } else if (what == 5) {
                    zone.end(some.id, Fate::Stopped, now, actions), model.end(some.id, Fate::Stopped, now);
                } else if (what == 6) {
                    zone.began(now), model.began(now);
                } else if (what == 7) {
                    zone.idle(now, actions), model.idle(now);
                } else if (what == 8) {
                    zone.levelIs(level, now), model.levelIs(level, now);
                } else if (what == 9) {
                    zone.lost(now, actions), model.lost(now);
                } else if (what <= 11) {
                    zone.returned(level, now, actions), model.returned(level, now);
                } else if (what == 12 && upTo(3) == 0) {
                    zone.stopYielding(now, actions), model.stopYielding(now);
                } else {
                    zone.passed(now, actions), model.passed(now);
                }
                told.emplace_back(QByteArray::number(qint64(now.count())) + ' ' + QByteArray::number(what),
                                  actions);
                if (!(actions == model.out) || zone.due() != model.due() || zone.base() != model.base ||
                    zone.holder() != model.holder())
                    QFAIL(historyOf(told) + "model: " + textOf(model.out));
                plays += std::count_if(actions.begin(), actions.end(),
                                       [](const Action& action) { return action.kind == Action::Play; });
            }
        }
        QVERIFY(plays > Histories);
    }
};

int main(int argc, char** argv) {
    return runTest<ZonesTest>(argc, argv);
}
#include "zones_test.moc"
