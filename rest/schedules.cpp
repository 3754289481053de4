#include "service/schedules.h"

#include "core/loop/mainloop.h"
#include "rest/owner.h"
#include "rest/resources.h"
#include "rest/restcall.h"
#include "rest/targets.h"
#include "rest/timestamp.h"
#include "service/plans.h"
#include "service/visibility.h"
#include "tasks/schedule/tasktime.h"
#include "tasks/task_workque.h"

#include <limits>
#include <QDateTime>

namespace {

constexpr int MostSounds = 1000;
constexpr int MostRepeats = 1000;
constexpr int LongestPlay = 86400;          ///< s
constexpr qint64 UsualPreview = 7;          ///< days
constexpr qint64 LastSecond = 253402300799; ///< of the year 9999

HouseRules houseOf(const RestCall& call) {
    return call.services().tasks ? call.services().tasks->house() : HouseRules{};
}

QJsonValue orNull(qint64 id) {
    return id == 0 ? QJsonValue() : QJsonValue(id);
}
QJsonValue orNull(std::optional<int> number) {
    return number ? QJsonValue(*number) : QJsonValue();
}

QString timeText(int seconds) {
    return QTime(0, 0).addSecs(seconds).toString(QStringLiteral("HH:mm:ss"));
}

QJsonArray daysOf(const QString& week) {
    QJsonArray days;
    for (int day = 1; day <= 7; ++day) {
        if (week.size() != 7 || week.at(day - 1) != QLatin1Char('0'))
            days.append(day);
    }
    return days;
}

QJsonValue lastObject(const LastBell& last) {
    if (last.due == 0)
        return {};
    return QJsonObject{{QStringLiteral("due"), timestamp(last.due)}, {QStringLiteral("state"), last.state}};
}

QJsonObject missedObject(const MissedPolicy& missed) {
    const int within = missed.within.value_or(MissedPolicy::Usual);
    return {{QStringLiteral("policy"), within == 0 ? QStringLiteral("skip") : QStringLiteral("ring")},
            {QStringLiteral("within"), within == 0 ? MissedPolicy::Usual : within}};
}

QJsonObject object(const Schedule& schedule) {
    QJsonArray sounds;
    for (const qint64 sound : schedule.sounds)
        sounds.append(sound);
    const BellRule& rule = schedule.rule;
    const auto date = [](qint64 days) {
        return dateValue(days == 0 ? std::nullopt : std::optional<qint64>(days));
    };
    return {{QStringLiteral("id"), rule.id},
            {QStringLiteral("name"), schedule.name},
            {QStringLiteral("enabled"), schedule.isEnabled},
            {QStringLiteral("time"), timeText(rule.startTime)},
            {QStringLiteral("days"), daysOf(rule.week)},
            {QStringLiteral("from"), date(rule.startdate)},
            {QStringLiteral("until"), date(rule.enddate)},
            {QStringLiteral("calendar"), orNull(rule.calendar)},
            {QStringLiteral("plan"), orNull(rule.plan)},
            {QStringLiteral("sounds"), sounds},
            {QStringLiteral("repeat"), schedule.repeat},
            {QStringLiteral("seconds"), orNull(schedule.seconds)},
            {QStringLiteral("targets"), targetsObject(schedule.targets)},
            {QStringLiteral("volume"), orNull(schedule.volume)},
            {QStringLiteral("priority"), schedule.priority.value_or(UsualPriority)},
            {QStringLiteral("missed"), missedObject(schedule.missed)},
            {QStringLiteral("next"), timestampOrNull(schedule.next.value_or(0) * 1000)},
            {QStringLiteral("last"), lastObject(schedule.last)}};
}

// --- reading ---

void readTime(const Fields& body, Schedule& schedule) {
    const auto text = body.text("time", 1, 20);
    if (!text)
        return;
    const auto seconds = text->size() == 8 ? secondsOfTime(*text) : std::nullopt;
    if (!seconds)
        body.refuse("time", QStringLiteral("must be a time of day, HH:MM:SS"));
    schedule.rule.startTime = seconds.value_or(0);
}

void readDays(const Fields& body, Schedule& schedule) {
    const auto days = body.ids("days", 7);
    if (!days)
        return;
    QString week(7, QLatin1Char('0'));
    for (const qint64 day : *days) {
        if (day >= 1 && day <= 7)
            week[static_cast<int>(day) - 1] = QLatin1Char('1');
        else
            body.refuse("days", QStringLiteral("must be 1 (Monday) to 7"));
    }
    if (days->isEmpty())
        body.refuse("days", QStringLiteral("names no day"));
    schedule.rule.week = week;
}

void readDates(const Fields& body, Schedule& schedule) {
    BellRule& rule = schedule.rule;
    rule.startdate = body.isNull("from") ? 0 : dateField(body, "from").value_or(rule.startdate);
    rule.enddate = body.isNull("until") ? 0 : dateField(body, "until").value_or(rule.enddate);
    if (rule.enddate != 0 && rule.enddate < rule.startdate)
        body.refuse("until", QStringLiteral("must not be before \"from\""));
}

void readMissed(const Fields& body, Schedule& schedule) {
    if (body.isNull("missed"))
        schedule.missed.within.reset();
    const auto missed = body.object("missed");
    if (!missed)
        return;
    const int before = schedule.missed.within.value_or(MissedPolicy::Usual);
    const QString policy = missed->word("policy", {QStringLiteral("ring"), QStringLiteral("skip")})
                               .value_or(before == 0 ? QStringLiteral("skip") : QStringLiteral("ring"));
    const int within = static_cast<int>(missed->integer("within", 1, MissedPolicy::Longest)
                                            .value_or(before == 0 ? MissedPolicy::Usual : before));
    refuseNull(*missed, {"policy", "within"});
    if (policy == QLatin1String("skip"))
        schedule.missed.within = 0;
    else if (within == MissedPolicy::Usual)
        schedule.missed.within.reset();
    else
        schedule.missed.within = within;
}

void readNumbers(const Fields& body, Schedule& schedule) {
    const auto number = [&body](const char* name, int least, int most, std::optional<int> before) {
        const auto given = body.integer(name, least, most);
        return body.isNull(name) ? std::nullopt : given ? std::optional(static_cast<int>(*given)) : before;
    };
    schedule.repeat = number("repeat", 0, MostRepeats, schedule.repeat).value_or(1);
    schedule.seconds = number("seconds", 1, LongestPlay, schedule.seconds);
    schedule.volume = number("volume", 1, 25, schedule.volume);
    schedule.priority = number("priority", 0, 255, schedule.priority);
    if (schedule.repeat == 0 && !schedule.seconds)
        body.refuse("seconds", QStringLiteral("must be there when \"repeat\" is 0: sounds at random"));
}

/// False when the database does not answer, as for the next ones.
bool readSounds(RestCall& call, Schedule& schedule) {
    const auto sounds = call.body().ids("sounds", MostSounds);
    if (!sounds)
        return true;
    const auto known = soundsAmong(call.database(), soundOwners(call.database(), call.caller()), *sounds);
    for (int i = 0; known && i < sounds->size(); ++i) {
        if (!known->contains(sounds->at(i)))
            call.refuse(QStringLiteral("/sounds/%1").arg(i), QStringLiteral("no such sound"));
    }
    if (sounds->isEmpty())
        call.body().refuse("sounds", QStringLiteral("names no sound"));
    schedule.sounds = *sounds;
    return known.has_value();
}

bool readLinks(RestCall& call, Schedule& schedule) {
    constexpr qint64 Most = std::numeric_limits<int>::max();
    const Fields& body = call.body();
    const auto calendar = body.integer("calendar", 1, Most);
    const auto plan = body.integer("plan", 1, Most);
    const auto knownCalendar = calendar ? findCalendar(call.database(), schedule.owner, *calendar)
                                        : std::optional(std::optional<Calendar>());
    const auto knownPlan = plan ? findPlan(call.database(), schedule.owner, *plan)
                                : std::optional(std::optional<SchedulePlan>());
    if (!knownCalendar || !knownPlan)
        return false;
    if (calendar && !*knownCalendar)
        body.refuse("calendar", QStringLiteral("no such calendar"));
    if (plan && !*knownPlan)
        body.refuse("plan", QStringLiteral("no such plan"));
    schedule.rule.calendar = body.isNull("calendar") ? 0 : calendar.value_or(schedule.rule.calendar);
    schedule.rule.plan = body.isNull("plan") ? 0 : plan.value_or(schedule.rule.plan);
    return true;
}

bool readSchedule(RestCall& call, Schedule& schedule) {
    const Fields& body = call.body();
    schedule.name = body.text("name", 1, LongestObjectName).value_or(schedule.name);
    schedule.isEnabled = body.flag("enabled").value_or(schedule.isEnabled);
    refuseNull(body, {"name", "enabled", "time", "days", "sounds", "targets"});
    readTime(body, schedule);
    readDays(body, schedule);
    readDates(body, schedule);
    readMissed(body, schedule);
    readNumbers(body, schedule);
    bool isAway = false;
    if (const auto targets = readTargets(call, body, isAway))
        schedule.targets = *targets;
    return !isAway && readSounds(call, schedule) && readLinks(call, schedule);
}

// --- routes ---

std::optional<std::optional<Schedule>> named(const RestCall& call, qint64 id) {
    return findSchedule(call.database(), ownerOf(call), houseOf(call), id);
}

RestAnswer answerFor(const RestCall& call, qint64 id, bool isNew) {
    return withObject(named(call, id), [&](const Schedule& schedule) {
        return isNew ? created(QStringLiteral("/schedules/%1").arg(id), object(schedule))
                     : ok(object(schedule));
    });
}

RestAnswer listOfSchedules(RestCall& call) {
    const Page page = call.page();
    if (!call.fits())
        return call.misfit();
    return pageOf(page,
                  listSchedules(call.database(), ownerOf(call), houseOf(call), page.afterId(), page.wanted()),
                  object, [](const Schedule& schedule) { return schedule.rule.id; });
}

RestAnswer storeAnd(RestCall& call, Schedule& schedule) {
    const bool isNew = schedule.rule.id == 0;
    if (!readSchedule(call, schedule))
        return unavailable();
    if (!call.fits())
        return call.misfit();
    return storeSchedule(call.database(), schedule) ? answerFor(call, schedule.rule.id, isNew)
                                                    : unavailable();
}

RestAnswer newSchedule(RestCall& call) {
    Schedule schedule;
    schedule.owner = call.caller().account;
    schedule.rule.localDates = true;
    schedule.rule.week = QStringLiteral("1111111");
    call.body().need({"name", "time", "sounds", "targets"});
    return storeAnd(call, schedule);
}

RestAnswer getSchedule(RestCall& call) {
    return call.fits() ? answerFor(call, call.id(), false) : call.misfit();
}

RestAnswer editSchedule(RestCall& call) {
    return withObject(named(call, call.id()),
                      [&call](Schedule schedule) { return storeAnd(call, schedule); });
}

RestAnswer deleteSchedule(RestCall& call) {
    if (!call.fits())
        return call.misfit();
    return withObject(named(call, call.id()), [&call](const Schedule& schedule) {
        if (!removeSchedule(call.database(), schedule.rule.id))
            return unavailable();
        if (Task_workque* const tasks = call.services().tasks)
            callOnLoop(tasks, [&] { tasks->endTask(static_cast<quint64>(schedule.rule.id)); });
        return noContent();
    });
}

RestAnswer askAnd(RestCall& call, Asked (*ask)(sqlite&, const Schedule&)) {
    if (!call.fits())
        return call.misfit();
    return withObject(named(call, call.id()), [&](const Schedule& schedule) {
        switch (ask(call.database(), schedule)) {
        case Asked::Done:
            return accepted();
        case Asked::Busy:
            return problem(409, QStringLiteral("it plays, or is about to"));
        case Asked::Failed:
            break;
        }
        return unavailable();
    });
}

RestAnswer startSchedule(RestCall& call) {
    return askAnd(call, askStart);
}

RestAnswer stopSchedule(RestCall& call) {
    return askAnd(call, askStop);
}

// --- what is to come ---

QJsonObject upcomingObject(const UpcomingBell& bell) {
    return {{QStringLiteral("schedule"), bell.schedule},
            {QStringLiteral("due"), timestamp(bell.due * 1000)},
            {QStringLiteral("rings"), bell.reason.isEmpty()},
            {QStringLiteral("reason"), bell.reason.isEmpty() ? QJsonValue() : QJsonValue(bell.reason)}};
}

/// A bell's name in a cursor, "second.schedule".
QString placeText(const UpcomingBell& bell) {
    return QStringLiteral("%1.%2").arg(bell.due).arg(bell.schedule);
}
UpcomingPlace placeOf(const QString& text) {
    return {text.section(QLatin1Char('.'), 0, 0).toLongLong(),
            text.section(QLatin1Char('.'), 1, 1).toLongLong()};
}

RestAnswer upcoming(RestCall& call) {
    const Page page = call.page();
    const qint64 from =
        (call.query().time("from").value_or(QDateTime::currentMSecsSinceEpoch()) + 999) / 1000;
    const qint64 until =
        call.query().time("until").value_or((from + UsualPreview * SecondsPerDay) * 1000) / 1000;
    if (until < from - 1)
        call.query().refuse("until", QStringLiteral("must not be before \"from\""));
    else if (until - from > FurthestPreview * SecondsPerDay)
        call.query().refuse("until", QStringLiteral("must not be more than 400 days after \"from\""));
    if (from < 0 || until > LastSecond)
        call.query().refuse("from", QStringLiteral("must lie between 1970 and 9999"));
    if (!call.fits())
        return call.misfit();
    const auto bells = upcomingBells(call.database(), ownerOf(call), houseOf(call), from, until,
                                     placeOf(page.after), page.wanted());
    if (!bells)
        return unavailable();
    QJsonArray items;
    QString last;
    for (const UpcomingBell& bell : *bells) {
        if (items.size() == page.limit)
            break;
        items.append(upcomingObject(bell));
        last = placeText(bell);
    }
    return page.answer(items, last, bells->size() > static_cast<size_t>(page.limit));
}

} // namespace

void addScheduleRoutes(RestRoutes& routes) {
    routes.add({
        {"GET", "/schedules", listOfSchedules, Who::Account, Paged},
        {"POST", "/schedules", newSchedule, Who::Account, 0, Takes::Object},
        {"GET", "/schedules/upcoming", upcoming, Who::Account, Paged, Takes::Nothing, {"from", "until"}},
        {"GET", "/schedules/{id}", getSchedule},
        {"PATCH", "/schedules/{id}", editSchedule, Who::Account, 0, Takes::Object},
        {"DELETE", "/schedules/{id}", deleteSchedule},
        {"POST", "/schedules/{id}/start", startSchedule},
        {"POST", "/schedules/{id}/stop", stopSchedule},
    });
}
