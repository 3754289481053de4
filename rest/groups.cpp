#include "service/groups.h"

#include "core/sql/sqlite.h"
#include "rest/resources.h"
#include "rest/restcall.h"
#include "rest/speakers.h"
#include "service/speakers.h"
#include "service/targets.h"
#include "service/visibility.h"

#include <QJsonArray>

namespace {

constexpr int LongestName = 200;
constexpr int MostSpeakers = 20'000;
constexpr int MostGroups = 1000;

QJsonObject object(const Group& group) {
    QJsonArray groups;
    for (const qint64 id : group.groups)
        groups.append(id);
    return {{QStringLiteral("id"), group.id},
            {QStringLiteral("name"), group.name},
            {QStringLiteral("owner"), group.owner},
            {QStringLiteral("speakers"), QJsonArray::fromStringList(group.speakers)},
            {QStringLiteral("groups"), groups}};
}

GroupQuery visibleGroups(const RestCall& call) {
    const Reachable seen = visible(call.database(), call.caller());
    GroupQuery query;
    query.scope = seen.groups;
    query.speakers = seen.speakers;
    return query;
}

std::optional<Group> named(const RestCall& call) {
    return call.id() > 0 ? findGroup(call.database(), visibleGroups(call), call.id()) : std::nullopt;
}

bool isOwn(const RestCall& call, const Group& group) {
    return call.caller().isAdmin || call.caller().account == group.owner;
}

RestAnswer notAllowed() {
    return problem(403, QStringLiteral("your role on this group does not allow that"));
}

RestAnswer listOfGroups(RestCall& call) {
    const Page page = call.page();
    if (!call.fits())
        return call.misfit();
    GroupQuery query = visibleGroups(call);
    query.after = page.afterId();
    const auto groups = listGroups(call.database(), query, page.wanted());
    if (!groups)
        return unavailable();
    QJsonArray items;
    for (const Group& group : *groups) {
        if (items.size() < page.limit)
            items.append(object(group));
    }
    const QString last =
        items.isEmpty() ? QString() : QString::number((*groups)[static_cast<size_t>(items.size()) - 1].id);
    return page.answer(items, last, groups->size() > static_cast<size_t>(page.limit));
}

/// Reads what a group is to hold; members that do not exist or are not the caller's to see are noted.
/// nullopt when the database does not answer.
std::optional<GroupChange> readGroup(RestCall& call) {
    const Fields& body = call.body();
    for (const char* name : {"name", "speakers", "groups"}) {
        if (body.isNull(name))
            body.refuse(name, QStringLiteral("must not be null"));
    }
    GroupChange change{body.text("name", 1, LongestName), body.serials("speakers", MostSpeakers),
                       body.ids("groups", MostGroups)};
    const Targets members{false, change.speakers.value_or(QStringList()),
                          change.groups.value_or(QList<qint64>())};
    const auto faults = membersOutOf(call.database(), visible(call.database(), call.caller()), members);
    if (!faults)
        return std::nullopt;
    for (const TargetFault& fault : *faults)
        call.refuse(fault.pointer, fault.detail);
    return change;
}

RestAnswer answerFor(const RestCall& call, qint64 id, bool isNew) {
    const auto group = findGroup(call.database(), visibleGroups(call), id);
    if (!group)
        return isNew ? unavailable() : notFound();
    return isNew ? created(QStringLiteral("/groups/%1").arg(id), object(*group)) : ok(object(*group));
}

RestAnswer newGroup(RestCall& call) {
    call.body().need({"name"});
    const auto group = readGroup(call);
    if (!group)
        return unavailable();
    if (!call.fits())
        return call.misfit();
    qint64 id = 0;
    if (addGroup(call.database(), static_cast<int>(call.caller().account), *group, id) != GroupOutcome::Done)
        return unavailable();
    return answerFor(call, id, true);
}

RestAnswer getGroup(RestCall& call) {
    if (!call.fits())
        return call.misfit();
    const auto group = named(call);
    return group ? ok(object(*group)) : notFound();
}

RestAnswer editGroup(RestCall& call) {
    const auto group = named(call);
    if (!group)
        return notFound();
    if (!isOwn(call, *group))
        return notAllowed();
    const auto wanted = readGroup(call);
    if (!wanted)
        return unavailable();
    if (!call.fits())
        return call.misfit();
    switch (changeGroup(call.database(), group->id, *wanted)) {
    case GroupOutcome::Done:
        return answerFor(call, group->id, false);
    case GroupOutcome::Circle:
        call.refuse(QStringLiteral("/groups"), QStringLiteral("the group would hold itself"));
        return call.misfit();
    case GroupOutcome::Failed:
        break;
    }
    return unavailable();
}

RestAnswer deleteGroup(RestCall& call) {
    const auto group = named(call);
    if (!group)
        return notFound();
    if (!isOwn(call, *group))
        return notAllowed();
    if (!call.fits())
        return call.misfit();
    return removeGroup(call.database(), group->id) ? noContent() : unavailable();
}

RestAnswer membersOfGroup(RestCall& call) {
    const Page page = call.page();
    const auto group = named(call);
    if (!group)
        return notFound();
    if (!call.fits())
        return call.misfit();
    SpeakerQuery query;
    query.among = speakersWithin(call.database(), {group->id});
    return query.among ? speakerPage(call, page, visible(call.database(), call.caller()), query)
                       : unavailable();
}

} // namespace

void addGroupRoutes(RestRoutes& routes) {
    routes.add({
        {"GET", "/groups", listOfGroups, Who::Account, Paged},
        {"POST", "/groups", newGroup, Who::Account, Renames, Takes::Object},
        {"GET", "/groups/{id}", getGroup},
        {"PATCH", "/groups/{id}", editGroup, Who::Account, Renames, Takes::Object},
        {"DELETE", "/groups/{id}", deleteGroup, Who::Account, Renames},
        {"GET", "/groups/{id}/speakers", membersOfGroup, Who::Account, Paged},
    });
}
