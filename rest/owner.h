#pragma once

#include "rest/page.h"
#include "rest/restcall.h"
#include "service/calendars.h"

#include <QDate>
#include <QJsonArray>

// What resources share that belong to one account each.

constexpr int LongestObjectName = 200;

/// Whose objects the caller sees: its own, an administrator everybody's.
inline Owner ownerOf(const RestCall& call) {
    return call.caller().isAdmin ? Owner() : Owner(call.caller().account);
}

/// Members that may be left out but not null.
void refuseNull(const Fields& body, std::initializer_list<const char*> names);

/// "YYYY-MM-DD" as days since 1970-01-01; notes what is no such date.
std::optional<qint64> dateField(const Fields& body, const char* name);
/// The other way; null for nothing.
QJsonValue dateValue(std::optional<qint64> days);

/// What `use` answers for the object; 404 without one, 503 when the database does not answer.
template<typename Object, typename Use>
RestAnswer withObject(const std::optional<std::optional<Object>>& found, const Use& use) {
    if (!found)
        return unavailable();
    return *found ? use(**found) : notFound();
}

/// A page from objects of which at most Page::wanted() were asked for, by ascending numbers.
template<typename Object, typename Json, typename Id>
RestAnswer pageOf(const Page& page, const std::optional<std::vector<Object>>& found, const Json& json,
                  const Id& id) {
    if (!found)
        return unavailable();
    QJsonArray items;
    qint64 last = 0;
    for (const Object& object : *found) {
        if (items.size() == page.limit)
            break;
        items.append(json(object));
        last = id(object);
    }
    return page.answer(items, QString::number(last), found->size() > static_cast<size_t>(page.limit));
}
