#include "service/sounds.h"

#include "core/sql/sqlite.h"
#include "device/severinit.h"
#include "rest/resources.h"
#include "rest/restcall.h"
#include "rest/timestamp.h"
#include "service/filestore.h"
#include "service/speech.h"
#include "service/visibility.h"

#include <algorithm>
#include <QDateTime>
#include <QFileInfo>
#include <QJsonArray>
#include <QTemporaryDir>
#include <QTemporaryFile>

namespace {

constexpr int LongestName = 200;
constexpr int LongestDerivedName = 60; ///< of a speech that was given none
constexpr int MostPercent = 100;
constexpr int NormalPercent = 50;

QJsonObject object(const FileStore& store, const Sound& sound) {
    const QDateTime made = QFileInfo(store.path(sound.url)).lastModified();
    return {{QStringLiteral("id"), sound.id},
            {QStringLiteral("name"), sound.name},
            {QStringLiteral("seconds"), sound.seconds},
            {QStringLiteral("bytes"), sound.bytes},
            {QStringLiteral("url"), store.playUrl(sound.url)},
            {QStringLiteral("created"), timestampOrNull(made.isValid() ? made.toMSecsSinceEpoch() : 0)}};
}

std::optional<Sound> named(const RestCall& call) {
    const auto sound = findSound(call.database(), call.id());
    const auto owners = soundOwners(call.database(), call.caller());
    return sound && (!owners || owners->contains(sound->owner)) ? sound : std::nullopt;
}

bool isOwn(const RestCall& call, const Sound& sound) {
    return call.caller().isAdmin || call.caller().account == sound.owner;
}

RestAnswer notAllowed() {
    return problem(403, QStringLiteral("the sound is another account's"));
}

RestAnswer listOfSounds(RestCall& call) {
    const Page page = call.page();
    const auto text = call.query().text("q");
    if (!call.fits())
        return call.misfit();
    const SoundQuery query{soundOwners(call.database(), call.caller()), text.value_or(QString()),
                           page.afterId()};
    auto sounds = listSounds(call.database(), query, static_cast<size_t>(page.wanted()));
    if (!sounds)
        return unavailable();
    const bool isMore = sounds->size() > static_cast<size_t>(page.limit);
    if (isMore)
        sounds->pop_back();
    const FileStore store(call.database());
    QJsonArray items;
    for (const Sound& sound : *sounds)
        items.append(object(store, sound));
    return page.answer(items, sounds->empty() ? QString() : QString::number(sounds->back().id), isMore);
}

/// The new sound, or why there is none.
RestAnswer answerFor(RestCall& call, const StoreResult& result) {
    switch (result.fault) {
    case StoreFault::None:
        break;
    case StoreFault::Undecodable:
        return problem(422, QStringLiteral("no sound could be read from that"));
    case StoreFault::NotStored:
        return later(503, QStringLiteral("the sound could not be made or stored"), std::chrono::seconds(30));
    case StoreFault::Database:
        return unavailable();
    }
    const auto sound = findSound(call.database(), result.stored->id);
    return sound ? created(QStringLiteral("/sounds/%1").arg(sound->id),
                           object(FileStore(call.database()), *sound))
                 : unavailable();
}

RestAnswer uploadSound(RestCall& call) {
    const auto name = call.query().text("name", LongestName);
    if (!name || name->isEmpty())
        call.query().refuse("name", QStringLiteral("is missing"));
    if (!call.fits())
        return call.misfit();
    QTemporaryFile* const upload = call.file();
    if (!upload || upload->size() == 0)
        return problem(422, QStringLiteral("the sound is missing: as the body, or as the part \"file\""));
    const FileStore store(call.database());
    const auto work = store.workDirectory();
    const QString source = work->filePath(QStringLiteral("upload"));
    if (!work->isValid() || !FileStore::copyTo(*upload, source))
        return answerFor(call, {std::nullopt, StoreFault::NotStored, {}});
    const AudioUpload audio{static_cast<int>(call.caller().account), *name, call.services().devices->bitrate,
                            Keep::Whole};
    return answerFor(call, storeAudio(call.database(), store, audio, source, *work));
}

bool isVoice(const QString& id) {
    const std::vector<Voice> known = voices();
    return known.empty() || std::any_of(known.begin(), known.end(), [&](const Voice& voice) {
               return voice.id == id || voice.language == id;
           });
}

RestAnswer speak(RestCall& call) {
    const Fields& body = call.body();
    body.need({"text"});
    const auto text = body.text("text", 1, LongestSpeech, Fields::Lines::Many);
    const auto voice = body.text("voice", 1, LongestName);
    const auto speed = body.integer("speed", 0, MostPercent);
    const auto volume = body.integer("volume", 0, MostPercent);
    const auto name = body.text("name", 1, LongestName);
    if (text && text->trimmed().isEmpty())
        body.refuse("text", QStringLiteral("must not be blank"));
    if (voice && !isVoice(*voice))
        body.refuse("voice", QStringLiteral("is none of /voices"));
    if (!call.fits())
        return call.misfit();
    const SpeechOrder order{*text, static_cast<int>(volume.value_or(NormalPercent)),
                            static_cast<int>(speed.value_or(NormalPercent)), voice.value_or(QString())};
    const AudioUpload audio{static_cast<int>(call.caller().account),
                            name.value_or(text->simplified().left(LongestDerivedName)), SpeechBitrate,
                            Keep::Whole};
    return answerFor(call, speakAndStore(call.database(), FileStore(call.database()), order, audio));
}

RestAnswer getSound(RestCall& call) {
    if (!call.fits())
        return call.misfit();
    const auto sound = named(call);
    return sound ? ok(object(FileStore(call.database()), *sound)) : notFound();
}

RestAnswer changeSound(RestCall& call) {
    auto sound = named(call);
    if (!sound)
        return notFound();
    if (!isOwn(call, *sound))
        return notAllowed();
    if (call.body().isNull("name"))
        call.body().refuse("name", QStringLiteral("must not be null"));
    const auto name = call.body().text("name", 1, LongestName);
    if (!call.fits())
        return call.misfit();
    if (name && !renameSound(call.database(), sound->id, *name))
        return unavailable();
    sound->name = name.value_or(sound->name);
    return ok(object(FileStore(call.database()), *sound));
}

RestAnswer inUse(const RestCall& call, const Sound& sound) {
    QJsonArray schedules;
    for (const qint64 id : tasksWithSound(call.database(), sound.id))
        schedules.append(id);
    RestAnswer answer = problem(409, QStringLiteral("schedules play this sound"));
    answer.json.insert(QStringLiteral("schedules"), schedules);
    return answer;
}

RestAnswer deleteSound(RestCall& call) {
    const auto sound = named(call);
    if (!sound)
        return notFound();
    if (!isOwn(call, *sound))
        return notAllowed();
    if (!call.fits())
        return call.misfit();
    switch (removeSound(call.database(), FileStore(call.database()), *sound)) {
    case SoundRemoval::Done:
        return noContent();
    case SoundRemoval::InUse:
        return inUse(call, *sound);
    case SoundRemoval::Failed:
        break;
    }
    return unavailable();
}

RestAnswer listOfVoices(RestCall& call) {
    const Page page = call.page();
    if (!call.fits())
        return call.misfit();
    const std::vector<Voice> all = voices();
    auto next =
        std::find_if(all.begin(), all.end(), [&](const Voice& voice) { return voice.id > page.after; });
    QJsonArray items;
    QString last;
    for (; next != all.end() && items.size() < page.limit; ++next) {
        last = next->id;
        items.append(QJsonObject{{QStringLiteral("id"), next->id},
                                 {QStringLiteral("name"), next->name},
                                 {QStringLiteral("language"), next->language}});
    }
    return page.answer(items, last, next != all.end());
}

} // namespace

void addSoundRoutes(RestRoutes& routes) {
    routes.add({
        {"GET", "/sounds", listOfSounds, Who::Account, Paged, Takes::Nothing, {"q"}},
        {"POST", "/sounds", uploadSound, Who::Account, Encodes, Takes::File, {"name"}},
        {"POST", "/sounds/speech", speak, Who::Account, Encodes, Takes::Object},
        {"GET", "/sounds/{id}", getSound},
        {"PATCH", "/sounds/{id}", changeSound, Who::Account, 0, Takes::Object},
        {"DELETE", "/sounds/{id}", deleteSound},
        {"GET", "/voices", listOfVoices, Who::Account, Paged},
    });
}
