#include "tasks/alarms/alarmcast.h"

#include "core/loop/fetch.h"
#include "device/mp3path.h"
#include "device/saobj.h"
#include "device/severinit.h"
#include "journal/journal.h"
#include "orders/orders.h"
#include "tasks/alarms/baojingobject.h"

#include <algorithm>
#include <functional>
#include <map>
#include <QDebug>
#include <QDir>
#include <QFileInfo>
#include <QJsonArray>
#include <utility>

namespace {

/// All casts are one stream to the speakers: so a newer one of the same level takes them over at once
/// instead of being taken for a stale one of another stream.
constexpr int StreamId = 1;
/// Result of a packet that was not sent: something else holds the speaker.
constexpr int Unheard = 1;
/// Levels above count alike for what is no alarm file; among them the data path's rule holds.
constexpr int HighestLevel = zones::Highest - 1 - zones::Forced;
const auto SourceName = QStringLiteral("Alarmcast");
constexpr int NamedFailures = 20;
constexpr int AlarmPriority = 224;
constexpr quint8 Untold = 255; ///< nothing is recorded yet of a speaker

/// A speaker that is not connected: it may have been.
ReceiptState awayAfter(quint8 told) {
    const bool hadIt = told == static_cast<quint8>(ReceiptState::Sent) ||
                       told == static_cast<quint8>(ReceiptState::Started) ||
                       told == static_cast<quint8>(ReceiptState::Lost);
    return hadIt ? ReceiptState::Lost : ReceiptState::Offline;
}

QJsonObject reply(const char* word, const QString& info) {
    return {{QStringLiteral("res"), QLatin1String(word)}, {QStringLiteral("info"), info}};
}

/// The level asked for; -1 for one that is no level.
int levelOf(const QJsonObject& request) {
    const QJsonValue level = request.value(QLatin1String("level"));
    if (level.isUndefined())
        return Alarmcast::DefaultLevel;
    bool isNumber = false;
    const int number = level.toVariant().toString().toInt(&isNumber);
    return isNumber && number >= 0 && number <= Alarmcast::MaxLevel ? number : -1;
}

} // namespace

Alarmcast::Alarmcast(Severinit* devices, QString runingdir, QObject* parent)
    : QObject(parent)
    , m_devices(devices)
    , m_directory(std::move(runingdir)) {
    devices->addCommand(
        QStringLiteral("PLAYMG"),
        [this](const QJsonObject& request, const QStringList& targets) { return play(request, targets); });
    devices->addCommand(
        QStringLiteral("STOPMG"),
        [this](const QJsonObject& /*request*/, const QStringList& targets) { return stop(targets); });
    devices->setMp3Feeder(StreamId, this);
}

Alarmcast::~Alarmcast() {
    m_devices->setMp3Feeder(StreamId, nullptr);
}

// --- commands ---

QJsonObject Alarmcast::play(const QJsonObject& request, const QStringList& targets) {
    const int level = levelOf(request);
    if (level < 0)
        return reply("Data_error_7", QStringLiteral("\"level\" is no number from 0 to %1").arg(MaxLevel));
    if (castCount() >= MaxCasts)
        return reply("write_erro", QStringLiteral("%1 alarms play already").arg(MaxCasts));
    const bool anyKnown = std::any_of(targets.begin(), targets.end(), [this](const QString& sn) {
        return m_devices->session(sn) != nullptr;
    });
    const quint64 order = record(request, targets);
    const bool isCast = anyKnown && start(filesOf(request), targets, level, order);
    if (order != 0 && !isCast)
        m_journal->end(order, BroadcastState::Failed,
                       anyKnown ? QStringLiteral("no file can be opened")
                                : QStringLiteral("no speaker is known"));
    if (anyKnown && !isCast)
        return reply("ufile_error", QStringLiteral("no file of \"filelist\" can be opened"));
    return outcome(targets);
}

QJsonObject Alarmcast::stop(const QStringList& targets) {
    const QSet<QString> stopped(targets.begin(), targets.end());
    for (Cast& cast : m_casts) {
        auto& speakers = cast.speakers;
        const auto isStopped = [&](const SAobj* speaker) {
            return stopped.contains(speaker->sn());
        };
        const auto kept = std::partition(speakers.begin(), speakers.end(), std::not_fn(isStopped));
        QStringList serials;
        std::for_each(kept, speakers.end(), [&](SAobj* speaker) {
            speaker->clear_que(StreamId);
            serials << speaker->sn();
        });
        speakers.erase(kept, speakers.end());
        cast.told.assign(speakers.size(), Untold);
        if (m_orders && cast.order != 0)
            m_orders->leaveStream(cast.order, serials);
        if (cast.order != 0)
            m_journal->mark(cast.order, serials, ReceiptState::Stopped);
        if (cast.order != 0 && speakers.empty())
            m_journal->end(cast.order, BroadcastState::Stopped);
        if (speakers.empty())
            endSoon(cast.sequence);
    }
    return outcome(targets);
}

/// "WELL", or the word of the last target that is not there to hear it.
QJsonObject Alarmcast::outcome(const QStringList& targets) const {
    const char* word = "WELL";
    QStringList failures;
    for (const QString& sn : targets) {
        const SAobj* const session = m_devices->session(sn);
        if (session && session->isOnline())
            continue;
        word = session ? "unline" : "out_of_range";
        failures << sn + QLatin1Char(' ') + QLatin1String(word);
    }
    const QString info =
        QStringLiteral("%1 of %2 online").arg(targets.size() - failures.size()).arg(targets.size());
    const QString named = QStringList(failures.mid(0, NamedFailures)).join(QStringLiteral(", "));
    return reply(word, named.isEmpty() ? info : info + QStringLiteral("; ") + named);
}

// --- files ---

QStringList Alarmcast::filesOf(const QJsonObject& request) const {
    QStringList files;
    for (const QJsonValue entry : request.value(QLatin1String("filelist")).toArray()) {
        const QString file = fileBelow(m_directory, entry.toString());
        if (file.isEmpty())
            qWarning().noquote() << "PLAYMG: no such file below the working directory:" << entry.toString();
        else if (files.size() < MaxFiles)
            files << file;
    }
    return files;
}

QString Alarmcast::fileBelow(const QString& directory, const QString& entry) {
    const QString base = QFileInfo(directory).canonicalFilePath();
    const QFileInfo file(QDir(base).filePath(entry));
    const QString path = file.canonicalFilePath();
    const bool isBelow = path.startsWith(base.endsWith(QLatin1Char('/')) ? base : base + QLatin1Char('/'));
    return !base.isEmpty() && isBelow && QFileInfo(path).isFile() ? path : QString();
}

// --- casts ---

bool Alarmcast::start(const QStringList& files, const QStringList& targets, int level, quint64 order) {
    Cast& cast = m_casts.emplace_back();
    cast.sequence = ++m_sequence;
    cast.level = level;
    cast.order = order;
    for (const QString& sn : targets) {
        SAobj* const session = m_devices->session(sn);
        if (!session)
            continue;
        cast.speakers.push_back(session);
        if (session->streamPriority() <= level)
            session->clear_que(StreamId);
    }
    cast.told.assign(cast.speakers.size(), Untold);
    if (m_orders && order != 0)
        claim(cast);
    cast.player = std::make_unique<Baojingobject>(files);
    connect(cast.player.get(), &Baojingobject::present_mp3data_s, this,
            [this, &cast](const QByteArray& packet) { feed(cast, packet); });
    cast.player->_start_init();
    if (!cast.player->isPlaying()) {
        if (m_orders && order != 0)
            m_orders->endStream(order);
        m_casts.pop_back();
        return false;
    }
    connect(cast.player.get(), &Baojingobject::over, this,
            [this, sequence = cast.sequence] { endSoon(sequence); });
    qInfo().noquote() << "PLAYMG" << cast.player->currentFile() << "to" << cast.speakers.size()
                      << "speakers, level" << level << "sequence" << cast.sequence;
    return true;
}

/// Every speaker shares the packet's one copy.
void Alarmcast::feed(Cast& cast, const QByteArray& packet) {
    const std::vector<SAobj*>& speakers = cast.speakers;
    const Mp3Stream stream{StreamId, cast.level, cast.sequence, SourceName, cast.player->currentFile()};
    std::vector<int> results(speakers.size());
    for (size_t i = 0; i < speakers.size(); ++i) {
        fetchAhead(speakers, i, std::mem_fn(&SAobj::fetch), std::mem_fn(&SAobj::fetchMp3Socket));
        if (cast.unheard.contains(speakers[i]->sn())) {
            results[i] = Unheard;
            continue;
        }
        results[i] = speakers[i]->forward(stream, true, packet);
    }
    if (cast.order != 0)
        recordFed(cast, results);
}

// --- who gets the speakers ---

void Alarmcast::claim(const Cast& cast) {
    QStringList serials;
    for (const SAobj* const speaker : cast.speakers)
        serials << speaker->sn();
    Orders::Stream stream;
    stream.priority = zones::Forced + std::min(cast.level, HighestLevel);
    m_orders->beginStream(
        cast.order, stream, serials,
        [this, sequence = cast.sequence](const QString& sn, bool hears) { heard(sequence, sn, hears); });
}

void Alarmcast::heard(int sequence, const QString& sn, bool hears) {
    const auto cast = std::find_if(m_casts.begin(), m_casts.end(),
                                   [sequence](const Cast& one) { return one.sequence == sequence; });
    if (cast == m_casts.end())
        return;
    if (hears)
        cast->unheard.remove(sn);
    else
        cast->unheard.insert(sn);
    if (SAobj* const session = hears ? nullptr : m_devices->session(sn))
        session->clear_que(StreamId);
}

// --- the record ---

/// The broadcast that the command names, or one of its own; 0 without a journal.
quint64 Alarmcast::record(const QJsonObject& request, const QStringList& targets) const {
    if (!m_journal)
        return 0;
    quint64 order = PlayOrders::read(request.value(QLatin1String("order"))).at(0);
    if (order == 0 || !m_journal->standing(order)) {
        Broadcast cast;
        cast.kind = Broadcast::Kind::Alarm;
        cast.name = request.value(QLatin1String("filelist")).toArray().first().toString();
        cast.priority = AlarmPriority;
        cast.origin.path = QStringLiteral("PLAYMG");
        cast.endsByItself = false;
        order = m_journal->begin(cast);
    }
    QStringList away;
    for (const QString& sn : targets) {
        if (!m_devices->isOnline(sn))
            away << sn;
    }
    m_journal->expect(order, targets);
    m_journal->mark(order, away, ReceiptState::Offline);
    return order;
}

/// What became of a packet at each speaker, where it is something else than of the one before.
void Alarmcast::recordFed(Cast& cast, const std::vector<int>& results) const {
    std::map<ReceiptState, QStringList> changes;
    for (size_t i = 0; i < results.size(); ++i) {
        if (results[i] == Unheard) {
            cast.told[i] = Untold;
            continue;
        }
        const SAobj& speaker = *cast.speakers[i];
        const auto state = results[i] == Mp3Path::LowerPriority ? ReceiptState::Overruled
                           : !speaker.isOnline()                ? awayAfter(cast.told[i])
                           : results[i] != 0                    ? ReceiptState::Refused
                           : speaker.isMp3Connected()           ? ReceiptState::Started
                                                                : ReceiptState::Sent;
        const bool isLater =
            state == ReceiptState::Sent && cast.told[i] == static_cast<quint8>(ReceiptState::Started);
        if (isLater || std::exchange(cast.told[i], static_cast<quint8>(state)) == static_cast<quint8>(state))
            continue;
        changes[state] << speaker.sn();
    }
    for (const auto& [state, serials] : changes)
        m_journal->mark(cast.order, serials, state,
                        state == ReceiptState::Overruled ? QStringLiteral("a higher level plays")
                                                         : QString());
}

/// The player may be the one that calls.
void Alarmcast::endSoon(int sequence) {
    QMetaObject::invokeMethod(
        this, [this, sequence] { end(sequence); }, Qt::QueuedConnection);
}

void Alarmcast::end(int sequence) {
    if (const Cast* const cast = castOf(sequence))
        qInfo().noquote() << "PLAYMG over, sequence" << sequence << "begun on" << cast->gained
                          << "speakers, lost" << cast->lost;
    for (const Cast& cast : m_casts) {
        if (cast.sequence != sequence || cast.order == 0)
            continue;
        if (m_orders)
            m_orders->endStream(cast.order);
        m_journal->end(cast.order);
    }
    m_casts.remove_if([&](const Cast& cast) { return cast.sequence == sequence; });
}

/// Null: it is over.
Alarmcast::Cast* Alarmcast::castOf(int sequence) {
    const auto found = std::find_if(m_casts.begin(), m_casts.end(),
                                    [&](const Cast& cast) { return cast.sequence == sequence; });
    return found == m_casts.end() ? nullptr : &*found;
}

void Alarmcast::gainedSpeaker(const QString& /*sn*/, const Mp3Stream& stream) {
    if (Cast* const cast = castOf(stream.sequence))
        ++cast->gained;
}

void Alarmcast::lostSpeaker(const QString& /*sn*/, const Mp3Stream& stream) {
    if (Cast* const cast = castOf(stream.sequence))
        ++cast->lost;
}
