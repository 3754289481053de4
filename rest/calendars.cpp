#include "service/calendars.h"

#include "rest/owner.h"
#include "rest/resources.h"
#include "rest/restcall.h"
#include "service/calendarimport.h"
#include "service/plans.h"

#include <limits>

namespace {

QJsonObject object(const Calendar& calendar) {
    return {{QStringLiteral("id"), calendar.id}, {QStringLiteral("name"), calendar.name}};
}

QJsonObject entryObject(const CalendarDates& entry) {
    return {{QStringLiteral("id"), entry.id},
            {QStringLiteral("name"), entry.name},
            {QStringLiteral("from"), dateValue(entry.first)},
            {QStringLiteral("until"), dateValue(entry.last)},
            {QStringLiteral("plan"), entry.plan ? QJsonValue(*entry.plan) : QJsonValue()}};
}

std::optional<std::optional<Calendar>> named(const RestCall& call) {
    return findCalendar(call.database(), ownerOf(call), call.id());
}

RestAnswer listOfCalendars(RestCall& call) {
    const Page page = call.page();
    if (!call.fits())
        return call.misfit();
    return pageOf(page, listCalendars(call.database(), ownerOf(call), page.afterId(), page.wanted()), object,
                  [](const Calendar& calendar) { return calendar.id; });
}

RestAnswer newCalendar(RestCall& call) {
    call.body().need({"name"});
    const auto name = call.body().text("name", 1, LongestObjectName);
    if (!call.fits())
        return call.misfit();
    const auto id = addCalendar(call.database(), call.caller().account, *name);
    return id ? created(QStringLiteral("/calendars/%1").arg(*id), object({*id, 0, *name})) : unavailable();
}

RestAnswer getCalendar(RestCall& call) {
    if (!call.fits())
        return call.misfit();
    return withObject(named(call), [](const Calendar& calendar) { return ok(object(calendar)); });
}

RestAnswer editCalendar(RestCall& call) {
    return withObject(named(call), [&call](Calendar calendar) {
        calendar.name = call.body().text("name", 1, LongestObjectName).value_or(calendar.name);
        refuseNull(call.body(), {"name"});
        if (!call.fits())
            return call.misfit();
        return renameCalendar(call.database(), calendar.id, calendar.name) ? ok(object(calendar))
                                                                           : unavailable();
    });
}

RestAnswer deleteCalendar(RestCall& call) {
    if (!call.fits())
        return call.misfit();
    return withObject(named(call), [&call](const Calendar& calendar) {
        const auto schedules = schedulesBy(call.database(), calendar.id);
        if (!schedules)
            return unavailable();
        if (!schedules->isEmpty())
            return problem(
                409, QStringLiteral("schedules go by the calendar, %1 among them").arg(schedules->first()));
        return removeCalendar(call.database(), calendar.id) ? noContent() : unavailable();
    });
}

// --- entries ---

/// False when the database does not answer.
bool readEntry(RestCall& call, const Calendar& calendar, CalendarDates& entry) {
    const Fields& body = call.body();
    entry.name = body.text("name", 1, LongestObjectName).value_or(entry.name);
    entry.first = dateField(body, "from").value_or(entry.first);
    entry.last = dateField(body, "until").value_or(entry.last);
    refuseNull(body, {"name", "from", "until"});
    if (entry.last < entry.first)
        body.refuse("until", QStringLiteral("must not be before \"from\""));
    const auto plan = body.integer("plan", 1, std::numeric_limits<int>::max());
    if (body.isNull("plan"))
        entry.plan.reset();
    if (!plan)
        return true;
    const auto known = findPlan(call.database(), calendar.owner, *plan);
    if (known && !*known)
        body.refuse("plan", QStringLiteral("no such plan"));
    entry.plan = plan;
    return known.has_value();
}

RestAnswer listOfEntries(RestCall& call) {
    const Page page = call.page();
    if (!call.fits())
        return call.misfit();
    return withObject(named(call), [&](const Calendar& calendar) {
        return pageOf(page, listEntries(call.database(), calendar.id, page.afterId(), page.wanted()),
                      entryObject, [](const CalendarDates& entry) { return entry.id; });
    });
}

RestAnswer newEntry(RestCall& call) {
    return withObject(named(call), [&call](const Calendar& calendar) {
        CalendarDates entry;
        call.body().need({"name", "from", "until"});
        if (!readEntry(call, calendar, entry))
            return unavailable();
        if (!call.fits())
            return call.misfit();
        if (!addEntry(call.database(), calendar.id, entry))
            return unavailable();
        return created(QStringLiteral("/calendars/%1/entries/%2").arg(calendar.id).arg(entry.id),
                       entryObject(entry));
    });
}

template<typename Use>
RestAnswer withEntry(RestCall& call, const Use& use) {
    return withObject(named(call), [&](const Calendar& calendar) {
        return withObject(findEntry(call.database(), calendar.id, call.id("entry")),
                          [&](const CalendarDates& entry) { return use(calendar, entry); });
    });
}

RestAnswer getEntry(RestCall& call) {
    if (!call.fits())
        return call.misfit();
    return withEntry(call,
                     [](const Calendar&, const CalendarDates& entry) { return ok(entryObject(entry)); });
}

RestAnswer editEntry(RestCall& call) {
    return withEntry(call, [&call](const Calendar& calendar, CalendarDates entry) {
        if (!readEntry(call, calendar, entry))
            return unavailable();
        if (!call.fits())
            return call.misfit();
        return changeEntry(call.database(), entry) ? ok(entryObject(entry)) : unavailable();
    });
}

RestAnswer deleteEntry(RestCall& call) {
    if (!call.fits())
        return call.misfit();
    return withEntry(call, [&call](const Calendar&, const CalendarDates& entry) {
        return removeEntry(call.database(), entry.id) ? noContent() : unavailable();
    });
}

// --- files ---

RestAnswer importFile(RestCall& call) {
    if (!call.fits())
        return call.misfit();
    return withObject(named(call), [&call](const Calendar& calendar) {
        const CalendarImport done = importCalendar(call.database(), calendar.id, call.bytes());
        switch (done.outcome) {
        case CalendarImport::Outcome::Done:
            break;
        case CalendarImport::Outcome::TooLarge:
            return problem(413, done.refusal);
        case CalendarImport::Outcome::Refused:
            return problem(422, done.refusal);
        case CalendarImport::Outcome::Failed:
            return unavailable();
        }
        QJsonArray ignored;
        for (const FileIgnored& event : done.ignored)
            ignored.append(
                QJsonObject{{QStringLiteral("uid"), event.uid}, {QStringLiteral("reason"), event.reason}});
        return ok({{QStringLiteral("added"), done.added},
                   {QStringLiteral("changed"), done.changed},
                   {QStringLiteral("removed"), done.removed},
                   {QStringLiteral("ignored"), ignored}});
    });
}

RestAnswer exportFile(RestCall& call) {
    if (!call.fits())
        return call.misfit();
    return withObject(named(call), [&call](const Calendar& calendar) {
        const auto file = exportCalendar(call.database(), calendar.id, calendar.name);
        return file ? bytesAnswer("text/calendar; charset=utf-8", *file) : unavailable();
    });
}

} // namespace

void addCalendarRoutes(RestRoutes& routes) {
    routes.add({
        {"GET", "/calendars", listOfCalendars, Who::Account, Paged},
        {"POST", "/calendars", newCalendar, Who::Account, 0, Takes::Object},
        {"GET", "/calendars/{id}", getCalendar},
        {"PATCH", "/calendars/{id}", editCalendar, Who::Account, 0, Takes::Object},
        {"DELETE", "/calendars/{id}", deleteCalendar},
        {"GET", "/calendars/{id}/entries", listOfEntries, Who::Account, Paged},
        {"POST", "/calendars/{id}/entries", newEntry, Who::Account, 0, Takes::Object},
        {"GET", "/calendars/{id}/entries/{entry}", getEntry},
        {"PATCH", "/calendars/{id}/entries/{entry}", editEntry, Who::Account, 0, Takes::Object},
        {"DELETE", "/calendars/{id}/entries/{entry}", deleteEntry},
        {"POST", "/calendars/{id}/import", importFile, Who::Account, 0, Takes::Calendar},
        {"GET", "/calendars/{id}/export", exportFile},
    });
}
