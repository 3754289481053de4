// Broadcasts that somebody orders: announcements, their stop, the same again.
#include "rest/broadcastobject.h"
#include "rest/broadcasts.h"
#include "rest/resources.h"
#include "rest/restcall.h"
#include "rest/targets.h"

#include "core/loop/mainloop.h"
#include "core/sql/sqlite.h"
#include "service/announcer.h"
#include "service/filestore.h"
#include "service/playlog.h"
#include "service/speech.h"
#include "service/visibility.h"

#include <QJsonObject>
#include <QTemporaryDir>
#include <QUrl>
#include <QUuid>
#include <variant>

namespace {

constexpr std::chrono::seconds Settling{2}; ///< at most: what has just happened gets into the tables
constexpr int LongestName = 200;
constexpr int MostItems = 100;
constexpr int MostRounds = 1000;
constexpr int MostQueueSeconds = 24 * 3600;
constexpr int LoudestLevel = 25;
constexpr int MostPercent = 100;
constexpr int NormalPercent = 50;

/// Something of "play" whose sound has still to be made.
struct Speech {
    size_t title;
    SpeechOrder order;
};

struct Wanted {
    AnnouncementRequest request;
    std::vector<Speech> speeches;
    bool isAway = false; ///< the database does not answer
};

RestAnswer withoutJournal() {
    return later(503, QStringLiteral("the journal is switched off, and broadcasts with it"),
                 std::chrono::seconds(60));
}

// --- what is to be played ---

void readSound(const RestCall& call, const Fields& item, qint64 id, Wanted& wanted) {
    const auto sound = findSound(call.database(), id);
    const auto owners = soundOwners(call.database(), call.caller());
    if (!sound || (owners && !owners->contains(sound->owner)))
        return item.refuse("sound", QStringLiteral("no such sound"));
    wanted.request.announcement.titles.push_back(
        {FileStore(call.database()).playUrl(sound->url), std::chrono::seconds(sound->seconds), true, {}});
    if (wanted.request.announcement.name.isEmpty())
        wanted.request.announcement.name = sound->name;
}

/// What a speaker would not take for an address to play: a line that binds an alarm input, a second line.
bool isAddress(const QString& text) {
    const QUrl url(text, QUrl::StrictMode);
    const bool isHttp = url.scheme() == QLatin1String("http") || url.scheme() == QLatin1String("https");
    const bool isLine = text.endsWith(QLatin1String(".mp3B")) || text.endsWith(QLatin1String(".mp3F"));
    return url.isValid() && isHttp && !url.host().isEmpty() && !isLine && !text.contains(QLatin1Char(' ')) &&
           !text.contains(QLatin1Char('&') + QString(QLatin1Char('&'))) &&
           text.toUtf8().size() <= Announcement::MaxUrlBytes;
}

void readUrl(const Fields& item, const QString& url, Wanted& wanted) {
    if (!isAddress(url))
        return item.refuse("url", QStringLiteral("is no http address that a speaker can fetch"));
    wanted.request.announcement.titles.push_back({url, zones::Time(0), false, {}});
}

void readSpeech(const Fields& speech, Wanted& wanted) {
    speech.need({"text"});
    const auto text = speech.text("text", 1, LongestSpeech, Fields::Lines::Many);
    const auto voice = speech.text("voice", 0, LongestName);
    const auto speed = speech.integer("speed", 0, MostPercent);
    if (!text)
        return;
    wanted.speeches.push_back(
        {wanted.request.announcement.titles.size(),
         {*text, MostPercent, static_cast<int>(speed.value_or(NormalPercent)), voice.value_or(QString())}});
    wanted.request.announcement.titles.push_back({});
}

void readItem(const RestCall& call, const Fields& item, Wanted& wanted) {
    const int given = int(item.has("sound")) + int(item.has("url")) + int(item.has("speech"));
    const auto sound = item.integer("sound", 1, std::numeric_limits<int>::max());
    const auto url = item.text("url", 1, Announcement::MaxUrlBytes);
    const auto speech = item.object("speech");
    if (given != 1)
        return item.refuse(given == 0           ? "sound"
                           : item.has("speech") ? "speech"
                                                : "url",
                           QStringLiteral("one of sound, url and speech, and no other"));
    if (sound)
        readSound(call, item, *sound, wanted);
    else if (url)
        readUrl(item, *url, wanted);
    else if (speech)
        readSpeech(*speech, wanted);
}

/// The whole order; what is wrong is noted in the call.
Wanted readOrder(RestCall& call) {
    Wanted wanted;
    const Fields& body = call.body();
    body.need({"targets", "play"});
    const auto targets = readTargets(call, body, wanted.isAway);
    const auto name = body.text("name", 0, LongestName);
    if (targets)
        wanted.request.targets = *targets;
    wanted.request.announcement.name = name.value_or(QString());
    Announcement& order = wanted.request.announcement;
    order.rounds = static_cast<int>(body.integer("repeat", 1, MostRounds).value_or(1));
    order.volume = static_cast<int>(body.integer("volume", 1, LoudestLevel).value_or(0));
    order.priority = static_cast<int>(body.integer("priority", 0, zones::Highest).value_or(order.priority));
    order.queueSpan = std::chrono::seconds(body.integer("queueSeconds", 0, MostQueueSeconds).value_or(60));
    const auto whenBusy = body.word("whenBusy", whenBusyWords());
    const auto resume = body.word("resume", resumeWords());
    order.whenBusy = whenBusyOf(whenBusy.value_or(QString())).value_or(order.whenBusy);
    order.resume = resumeOf(resume.value_or(QString())).value_or(order.resume);
    if (const auto items = body.objects("play", 1, MostItems)) {
        for (const Fields& item : *items)
            readItem(call, item, wanted);
    }
    return wanted;
}

/// Before the speakers are touched. False when one can't be made; what has been made is removed again.
bool makeSpeech(const RestCall& call, Wanted& wanted) {
    const FileStore store(call.database());
    for (const Speech& speech : wanted.speeches) {
        const AudioUpload upload{static_cast<int>(call.caller().account),
                                 QStringLiteral("announcement") + QUuid::createUuid().toString(QUuid::Id128),
                                 SpeechBitrate, Keep::FileAlone};
        const StoreResult made = speakAndStore(call.database(), store, speech.order, upload);
        auto& titles = wanted.request.announcement.titles;
        if (!made.stored) {
            for (const Announcement::Title& title : titles) {
                if (!title.ownFile.isEmpty())
                    store.remove(title.ownFile);
            }
            return false;
        }
        titles[speech.title] = {store.playUrl(made.stored->url),
                                std::chrono::seconds(made.stored->measure.seconds), true, made.stored->url};
        if (wanted.request.announcement.name.isEmpty())
            wanted.request.announcement.name = speech.order.text.simplified().left(LongestName);
    }
    return true;
}

// --- orders ---

Announcer announcerOf(const RestCall& call) {
    const Services& services = call.services();
    return {call.database(), *services.gate, *services.devices, *services.orders};
}

std::optional<Journal::Standing> standingOf(const RestCall& call, quint64 id) {
    return callOnLoop(call.services().journal, [&] { return call.services().journal->standing(id); });
}

RestAnswer give(RestCall& call, const AnnouncementRequest& request) {
    quint64 id = 0;
    switch (announcerOf(call).announce(call.caller(), request, id)) {
    case Announcer::Outcome::Unavailable:
        return unavailable();
    case Announcer::Outcome::Nobody:
        return problem(409, QStringLiteral("no speaker is left to play it"));
    case Announcer::Outcome::Done:
        break;
    }
    call.note(QStringLiteral("%1 %2").arg(id).arg(request.announcement.name));
    const auto standing = standingOf(call, id);
    return standing ? created(QStringLiteral("/broadcasts/%1").arg(id), broadcastObject(*standing))
                    : unavailable();
}

RestAnswer addBroadcast(RestCall& call) {
    if (!call.services().orders)
        return withoutJournal();
    Wanted wanted = readOrder(call);
    if (wanted.isAway)
        return unavailable();
    if (!call.fits())
        return call.misfit();
    if (!makeSpeech(call, wanted))
        return problem(503, QStringLiteral("the speech could not be made"));
    return give(call, wanted.request);
}

/// A broadcast that the caller may see.
struct Found {
    quint64 id = 0;
    bool isOwn = false; ///< he has ordered it, or may do everything
};

/// The answer instead when there is none.
std::variant<Found, RestAnswer> findBroadcast(const RestCall& call) {
    BroadcastQuery query;
    query.id = call.id();
    if (query.id == 0)
        return notFound();
    const Caller& caller = call.caller();
    if (const auto standing = standingOf(call, static_cast<quint64>(query.id));
        standing && (caller.isAdmin || standing->broadcast.owner == caller.account))
        return Found{standing->id, true};
    call.services().journal->settle(Settling);
    const SqlResult rows = findBroadcasts(call.database(), caller, query);
    if (!rows.ok)
        return unavailable();
    if (rows.isEmpty())
        return notFound();
    return Found{static_cast<quint64>(query.id),
                 caller.isAdmin || rows.value(0, "owner").toLongLong() == caller.account};
}

RestAnswer stopBroadcast(RestCall& call) {
    if (!call.services().orders)
        return withoutJournal();
    const auto answer = findBroadcast(call);
    if (const auto* refusal = std::get_if<RestAnswer>(&answer))
        return *refusal;
    const Found& found = std::get<Found>(answer);
    if (!call.fits())
        return call.misfit();
    Announcer announcer = announcerOf(call);
    switch (found.isOwn ? announcer.stop(found.id) : announcer.stopForOwn(call.caller(), found.id)) {
    case Announcer::Outcome::Unavailable:
        return unavailable();
    case Announcer::Outcome::Nobody:
        return problem(403, QStringLiteral("it plays on none of your speakers"));
    case Announcer::Outcome::Done:
        break;
    }
    call.services().journal->settle(Settling);
    BroadcastQuery query;
    query.id = static_cast<qint64>(found.id);
    const SqlResult rows = findBroadcasts(call.database(), call.caller(), query);
    return rows.isEmpty() ? unavailable() : accepted(broadcastJson(rows, 0));
}

RestAnswer repeatBroadcast(RestCall& call) {
    if (!call.services().orders)
        return withoutJournal();
    const auto answer = findBroadcast(call);
    if (const auto* refusal = std::get_if<RestAnswer>(&answer))
        return *refusal;
    const Found& found = std::get<Found>(answer);
    if (!call.fits())
        return call.misfit();
    if (!found.isOwn)
        return problem(403, QStringLiteral("only who has ordered it may repeat it"));
    const auto request = announcerOf(call).find(found.id);
    return request ? give(call, *request)
                   : problem(409, QStringLiteral("only announcements can be repeated, for %1 days")
                                      .arg(Announcer::DaysKept));
}

} // namespace

void addAnnouncementRoutes(RestRoutes& routes) {
    routes.add({
        {"POST", "/broadcasts", addBroadcast, Who::Account, Encodes, Takes::Object},
        {"POST", "/broadcasts/{id}/stop", stopBroadcast},
        {"POST", "/broadcasts/{id}/repeat", repeatBroadcast},
    });
}
