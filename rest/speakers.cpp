#include "rest/speakers.h"

#include "core/sql/sqlite.h"
#include "rest/resources.h"
#include "rest/restcall.h"
#include "rest/speakerobjects.h"
#include "rest/targets.h"
#include "service/groups.h"
#include "service/speakerboard.h"
#include "service/speakercommands.h"
#include "service/visibility.h"

#include <algorithm>
#include <QJsonArray>

namespace {

constexpr int LongestName = 200;
constexpr int LoudestLevel = 25;

SpeakerObjects objectsFor(const RestCall& call, const Reachable& seen) {
    const Services& services = call.services();
    return {call.database(), *services.board, *services.gate, seen.groups};
}

QJsonObject objectOf(const RestCall& call, const Speaker& speaker) {
    return objectsFor(call, visible(call.database(), call.caller())).of({speaker}).front();
}

/// The speaker that the path names, when the caller may see it.
std::optional<Speaker> named(const RestCall& call) {
    const QString serial = call.value("serial");
    const auto speaker = isSerial(serial) ? findSpeaker(call.database(), serial) : std::nullopt;
    const bool isSeen =
        speaker && visible(call.database(), call.caller()).speakers.holds(speaker->id, speaker->owner);
    return isSeen ? speaker : std::nullopt;
}

bool isOwn(const RestCall& call, const Speaker& speaker) {
    return call.caller().isAdmin || call.caller().account == speaker.owner;
}

bool mayPlayTo(const RestCall& call, const Speaker& speaker) {
    return reachable(call.database(), call.caller()).speakers.holds(speaker.id, speaker.owner);
}

RestAnswer notAllowed() {
    return problem(403, QStringLiteral("your role on this speaker does not allow that"));
}

/// Leaves the speakers of one state.
std::function<void(std::vector<Speaker>&)> sieveFor(const SpeakerObjects& objects, const QString& word) {
    const auto wanted = static_cast<SpeakerState::State>(SpeakerObjects::stateWords().indexOf(word));
    return [&objects, wanted](std::vector<Speaker>& speakers) {
        const std::vector<SpeakerState> states = objects.statesOf(speakers);
        size_t kept = 0;
        for (size_t i = 0; i < speakers.size(); ++i) {
            if (states[i].state == wanted)
                speakers[kept++] = speakers[i];
        }
        speakers.resize(kept);
    };
}

/// The members of a group that the caller may see, for a list; false when there is no such group for him.
bool limitToGroup(const RestCall& call, const Reachable& seen, qint64 id, SpeakerQuery& query) {
    const auto groups = groupsAmong(call.database(), seen.groups, {id});
    if (groups && groups->isEmpty())
        return false;
    if (groups)
        query.among = speakersWithin(call.database(), {id});
    return true;
}

RestAnswer listOfSpeakers(RestCall& call) {
    const Page page = call.page();
    const auto text = call.query().text("q");
    const auto group = call.query().id("group");
    const auto state = call.query().word("state", SpeakerObjects::stateWords());
    SpeakerQuery query;
    query.text = text.value_or(QString());
    const Reachable seen = visible(call.database(), call.caller());
    if (group && !limitToGroup(call, seen, *group, query))
        call.query().refuse("group", QStringLiteral("no such group"));
    if (!call.fits())
        return call.misfit();
    if (group && !query.among)
        return unavailable();
    const SpeakerObjects objects = objectsFor(call, seen);
    if (state)
        query.sieve = sieveFor(objects, *state);
    return speakerPage(call, page, seen, query);
}

RestAnswer addSpeaker(RestCall& call) {
    const Fields& body = call.body();
    body.need({"serial", "name"});
    const auto serial = body.text("serial", 1, LongestName);
    const auto name = body.text("name", 1, LongestName);
    if (serial) {
        const SerialFault fault = serialFault(*serial, *call.services().devices);
        if (fault == SerialFault::Blocked)
            body.refuse("serial", QStringLiteral("is on the block list"));
        else if (fault != SerialFault::None)
            body.refuse("serial", QStringLiteral("must be 32 lower-case hexadecimal digits"));
    }
    if (!call.fits())
        return call.misfit();
    const auto taken = findSpeakers(call.database(), {*serial});
    if (taken && !taken->empty())
        return problem(409, QStringLiteral("there is a speaker of this serial"));
    const NewSpeakers added{static_cast<int>(call.caller().account), *name, {*serial}, 0};
    if (!addSpeakers(call.database(), *call.services().devices, added))
        return findSpeaker(call.database(), *serial)
                   ? problem(409, QStringLiteral("there is a speaker of this serial"))
                   : unavailable();
    const auto speaker = findSpeaker(call.database(), *serial);
    return speaker ? created(QStringLiteral("/speakers/") + *serial, objectOf(call, *speaker))
                   : unavailable();
}

RestAnswer getSpeaker(RestCall& call) {
    if (!call.fits())
        return call.misfit();
    const auto speaker = named(call);
    return speaker ? ok(objectOf(call, *speaker)) : notFound();
}

struct SpeakerChange {
    std::optional<QString> name;
    std::optional<qint64> volume;
    std::optional<bool> isEnabled;
};

SpeakerChange readChange(const Fields& body) {
    for (const char* name : {"name", "volume", "enabled"}) {
        if (body.isNull(name))
            body.refuse(name, QStringLiteral("must not be null"));
    }
    return {body.text("name", 1, LongestName), body.integer("volume", 1, LoudestLevel), body.flag("enabled")};
}

/// Whether a volume can reach the speaker once what is wanted besides has been done.
bool canHear(const RestCall& call, const Speaker& speaker, const SpeakerChange& wanted) {
    const SpeakerObjects objects = objectsFor(call, {});
    const SpeakerState state = objects.statesOf({speaker}).front();
    return state.isOnline() && (state.isEnabled || wanted.isEnabled.value_or(false));
}

/// The steps that `wanted` names; a speaker that is to be disabled gets its volume before.
bool apply(const RestCall& call, const Speaker& speaker, const SpeakerChange& wanted) {
    SpeakerCommands commands(call.database(), *call.services().gate, *call.services().devices);
    if (wanted.name && !renameSpeaker(call.database(), speaker.id, *wanted.name))
        return false;
    if (wanted.isEnabled == true && !commands.setEnabled(speaker.serial, true))
        return false;
    if (wanted.volume)
        commands.setVolume({speaker.serial}, static_cast<int>(*wanted.volume));
    return wanted.isEnabled != false || commands.setEnabled(speaker.serial, false);
}

RestAnswer change(const RestCall& call, const Speaker& speaker, const SpeakerChange& wanted) {
    if (wanted.volume && !canHear(call, speaker, wanted))
        return problem(409, QStringLiteral("the speaker is not connected, or disabled"));
    if (!apply(call, speaker, wanted))
        return unavailable();
    const auto now = findSpeaker(call.database(), speaker.serial);
    if (!now)
        return notFound();
    QJsonObject object = objectOf(call, *now);
    if (wanted.volume) // the board follows a moment later
        object.insert(QStringLiteral("volume"), *wanted.volume);
    if (wanted.isEnabled)
        object.insert(QStringLiteral("enabled"), *wanted.isEnabled);
    return ok(object);
}

RestAnswer changeSpeaker(RestCall& call) {
    const auto speaker = named(call);
    if (!speaker)
        return notFound();
    const SpeakerChange wanted = readChange(call.body());
    const bool isForOwner = wanted.name || wanted.isEnabled;
    if (isForOwner ? !isOwn(call, *speaker) : !mayPlayTo(call, *speaker))
        return notAllowed();
    return call.fits() ? change(call, *speaker, wanted) : call.misfit();
}

RestAnswer deleteSpeaker(RestCall& call) {
    const auto speaker = named(call);
    if (!speaker)
        return notFound();
    if (!isOwn(call, *speaker))
        return notAllowed();
    if (!call.fits())
        return call.misfit();
    return removeSpeaker(call.database(), *call.services().devices, *speaker) ? noContent() : unavailable();
}

RestAnswer setVolumes(RestCall& call) {
    const Fields& body = call.body();
    body.need({"targets", "volume"});
    const auto volume = body.integer("volume", 1, LoudestLevel);
    bool isAway = false;
    const auto targets = readTargets(call, body, isAway);
    if (isAway)
        return unavailable();
    if (!call.fits() || !targets || !volume)
        return call.misfit();
    const auto serials = resolve(call.database(), reachable(call.database(), call.caller()), *targets);
    if (!serials)
        return unavailable();
    SpeakerCommands commands(call.database(), *call.services().gate, *call.services().devices);
    const Reach reach = commands.setVolume(*serials, static_cast<int>(*volume));
    call.note(QStringLiteral("volume %1 for %2 speakers").arg(*volume).arg(reach.targets));
    return accepted({{QStringLiteral("targets"), reach.targets}, {QStringLiteral("reached"), reach.reached}});
}

} // namespace

RestAnswer speakerPage(const RestCall& call, const Page& page, const Reachable& seen, SpeakerQuery query) {
    query.scope = seen.speakers;
    query.after = page.afterId();
    auto speakers = listSpeakers(call.database(), query, static_cast<size_t>(page.wanted()));
    if (!speakers)
        return unavailable();
    const bool isMore = speakers->size() > static_cast<size_t>(page.limit);
    if (isMore)
        speakers->pop_back();
    QJsonArray items;
    for (const QJsonObject& object : objectsFor(call, seen).of(*speakers))
        items.append(object);
    return page.answer(items, speakers->empty() ? QString() : QString::number(speakers->back().id), isMore);
}

void addSpeakerRoutes(RestRoutes& routes) {
    routes.add({
        {"GET", "/speakers", listOfSpeakers, Who::Account, Paged, Takes::Nothing, {"q", "group", "state"}},
        {"POST", "/speakers", addSpeaker, Who::Account, Renames, Takes::Object},
        {"POST", "/speakers/volume", setVolumes, Who::Account, 0, Takes::Object},
        {"GET", "/speakers/{serial}", getSpeaker},
        {"PATCH", "/speakers/{serial}", changeSpeaker, Who::Account, Renames, Takes::Object},
        {"DELETE", "/speakers/{serial}", deleteSpeaker, Who::Account, Renames},
    });
}
