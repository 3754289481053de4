#include "device/dispatcher.h"

#include "device/jsontext.h"
#include "device/severinit_state.h"

#include <algorithm>
#include <QJsonArray>
#include <QJsonDocument>

using namespace std::chrono_literals;

namespace {

constexpr char NoTargets[] = "Data_error_7";

/// For commands to many speakers in one turn of the loop.
constexpr auto TimeSlice = 4ms;

QByteArray noTargets() {
    return Dispatcher::reply(NoTargets, QStringLiteral("no speakers in \"snlist\" or \"group\""));
}

} // namespace

// --- the service's door ---

void Severinit::addCommand(const QString& word, const Command& command) {
    m_state->dispatcher->add(word, command);
}

QByteArray Severinit::Diamonds_jsondidocom(const QByteArray& request) {
    return m_state->dispatcher->run(request);
}

void Severinit::runCommand(const QByteArray& request, const std::function<void(QByteArray)>& reply,
                           const QString& peer) {
    m_state->dispatcher->run(request, reply, peer);
}

void Severinit::addPlayWatch(PlayWatch* watch) {
    m_state->playWatches.push_back(watch);
}

const std::vector<PlayWatch*>& Severinit::playWatches() const {
    return m_state->playWatches;
}

Dispatcher::Dispatcher(Severinit& devices)
    : m_devices(devices) {
    m_turn.setSingleShot(true);
    QObject::connect(&m_turn, &QTimer::timeout, [this] { takeTurn(); });
    m_reader.setMaxThreadCount(1);
}

Dispatcher::~Dispatcher() {
    m_reader.waitForDone();
}

// --- one request ---

QByteArray Dispatcher::reply(const char* word, const QString& info) {
    QByteArray json = QByteArrayLiteral("{\"res\":\"") + word + "\",\"info\":";
    appendJsonText(json, info);
    return json + '}';
}

Dispatcher::Request Dispatcher::read(const QByteArray& bytes) {
    if (bytes.size() > MaxValues && isTooMuch(bytes))
        return {{}, reply("json_error", QStringLiteral("too many values")), {}, {}};
    QJsonParseError error{};
    const QJsonDocument document = QJsonDocument::fromJson(bytes, &error);
    if (error.error != QJsonParseError::NoError)
        return {
            {},
            reply("json_error", QStringLiteral("%1 at byte %2").arg(error.errorString()).arg(error.offset)),
            {},
            {}};
    if (!document.isObject())
        return {{}, reply("json_error", QStringLiteral("not a JSON object")), {}, {}};
    const QJsonObject json = document.object();
    TargetList listed(json.value(QLatin1String("snlist")).toArray());
    if (bytes.size() > ReadHereBytes)
        listed.prepareCount();
    return {json, {}, std::move(listed), {}};
}

bool Dispatcher::isTooMuch(const QByteArray& bytes) {
    return bytes.count(',') > MaxValues || bytes.count('[') + bytes.count('{') > MaxContainers;
}

Dispatcher::Command Dispatcher::commandOf(const Request& read) {
    if (!read.refusal.isEmpty())
        return {read.refusal, nullptr, nullptr, {}};
    const QJsonObject& request = read.json;
    const QString word = request.value(QLatin1String("cmd")).toString();
    const int mode = Arguments(request).integer("mode").value_or(0);
    const auto& table = commandTable();
    const auto row = std::find_if(table.begin(), table.end(), [&](const CommandRow& candidate) {
        return (candidate.mode != 0 && candidate.mode == mode) || word == QLatin1String(candidate.word);
    });
    if (row != table.end())
        return rowCommand(*row, read);
    if (m_added.contains(word))
        return addedCommand(word, read);
    const QString info = word.isEmpty() ? QStringLiteral("no \"cmd\"") : QStringLiteral("no command ") + word;
    return {reply("unknown_cmd", info), nullptr, nullptr, {}};
}

Dispatcher::Command Dispatcher::rowCommand(const CommandRow& row, const Request& read) {
    const QJsonObject& request = read.json;
    if (row.answer) {
        const QByteArray answer = row.answer(*this, request);
        if (row.targets == Targets::None || !answer.isEmpty())
            return {answer, nullptr, nullptr, {}};
    }
    TargetList targets = resolve(row.targets, QLatin1String(row.word), read);
    if (row.targets != Targets::All && targets.size() == 0)
        return {noTargets(), nullptr, nullptr, {}};
    SessionCall call;
    if (row.plan) {
        Plan plan = row.plan(Arguments(request));
        if (!plan.call)
            return {reply(plan.refusal, plan.info), nullptr, nullptr, {}};
        call = std::move(plan.call);
    }
    auto run = row.targets == Targets::All
                   ? std::make_unique<CommandRun>(m_devices, row, std::move(call))
                   : std::make_unique<CommandRun>(m_devices, row, std::move(call), std::move(targets));
    watch(*run, row, read);
    return {{}, std::move(run), nullptr, {}};
}

void Dispatcher::watch(CommandRun& run, const CommandRow& row, const Request& read) const {
    if (row.play == PlayKind::None)
        return;
    const PlayOrders orders = PlayOrders::read(read.json.value(QLatin1String("order")));
    PlayCommand command;
    command.kind = orders.kindOf(row.play);
    command.files = Arguments(read.json).files();
    command.peer = read.peer;
    command.terms = PlayTerms::read(read.json.value(QLatin1String("terms")));
    command.isOver = read.json.value(QLatin1String("over")).toBool();
    run.watch(command, orders);
}

Dispatcher::Command Dispatcher::addedCommand(const QString& word, const Request& read) {
    const TargetList targets = each(word, read);
    if (targets.size() == 0)
        return {noTargets(), nullptr, nullptr, {}};
    const auto work = [command = m_added.value(word), request = read.json, targets] {
        return QJsonDocument(command(request, targets.serials())).toJson(QJsonDocument::Compact);
    };
    return {{}, nullptr, work, targets};
}

/// The serials that the request names; none when it is for every session.
TargetList Dispatcher::resolve(Targets targets, const QString& word, const Request& read) const {
    switch (targets) {
    case Targets::One:
        return TargetList(QStringList{read.json.value(QLatin1String("sn")).toString()});
    case Targets::List:
        return read.listed;
    case Targets::Each:
        return each(word, read);
    case Targets::All:
    case Targets::None:
        break;
    }
    return {};
}

TargetList Dispatcher::each(const QString& word, const Request& read) const {
    const QJsonObject& request = read.json;
    const TargetList& listed = read.listed;
    if (listed.size() == 0)
        return TargetList(expandGroup(request));
    if (!word.endsWith(QLatin1String("_G")) || !request.contains(QLatin1String("group")))
        return listed;
    const QStringList members = expandGroup(request);
    const bool isNamed = !request.value(QLatin1String("group")).toString().isEmpty();
    return members.isEmpty() && isNamed ? listed : TargetList(members);
}

QStringList Dispatcher::expandGroup(const QJsonObject& request) const {
    const QString group = request.value(QLatin1String("group")).toString();
    return group.isEmpty() ? QStringList() : m_devices.group(group);
}

// --- commands under way ---

QByteArray Dispatcher::run(const QByteArray& request) {
    Command command = commandOf(read(request));
    if (!command.run && !command.work)
        return command.reply;
    if (mayGoFirst(command))
        serveEarly(command);
    else
        proceedUntil(QDeadlineTimer::Forever);
    proceed(command, QDeadlineTimer::Forever);
    return command.reply;
}

void Dispatcher::run(const QByteArray& request, const Reply& reply, const QString& peer) {
    if (request.size() <= ReadHereBytes) {
        Request here = read(request);
        here.peer = peer;
        return begin(here, request.size(), reply);
    }
    m_unread.push_back({request, reply, peer});
    readNext();
}

void Dispatcher::begin(const Request& request, qint64 bytes, const Reply& reply) {
    const auto command = std::make_shared<Command>(commandOf(request));
    const bool isDone = !command->run && !command->work;
    if (!isDone && !mayGoFirst(*command))
        return enqueue({command, reply, bytes});
    if (!isDone) {
        serveEarly(*command);
        if (!proceed(*command, QDeadlineTimer(TimeSlice)))
            return enqueue({command, reply, bytes});
    }
    reply(std::move(command->reply));
    if (bytes > ReadHereBytes)
        letGo(command);
}

/// With nothing under way, or for few speakers behind nothing but runs.
bool Dispatcher::mayGoFirst(const Command& command) const {
    const int targets = command.run ? command.run->size() : command.workTargets.size();
    return m_underWay.empty() ||
           (targets <= CommandRun::BlockSize &&
            std::none_of(m_underWay.begin(), m_underWay.end(),
                         [](const UnderWay& other) { return other.command->work != nullptr; }));
}

void Dispatcher::serveEarly(const Command& command) {
    if (m_underWay.empty() || (command.run && command.run->isQuiet()))
        return;
    const QStringList targets = command.run ? command.run->serials() : command.workTargets.serials();
    for (int i = 0; i < targets.size() && !m_underWay.empty(); ++i) {
        for (const UnderWay& earlier : m_underWay)
            earlier.command->run->serveEarly(targets.at(i));
    }
}

/// Goes on with the command; true when its reply is there.
bool Dispatcher::proceed(Command& command, const QDeadlineTimer& until) {
    if (command.work) {
        command.reply = command.work();
        return true;
    }
    if (!command.run->proceed(until))
        return false;
    command.reply = command.run->reply();
    return true;
}

void Dispatcher::enqueue(UnderWay underWay) {
    m_bytesUnderWay += underWay.bytes;
    m_underWay.push_back(std::move(underWay));
    if (!m_turn.isActive())
        m_turn.start(0);
}

void Dispatcher::proceedUntil(const QDeadlineTimer& until) {
    while (!m_underWay.empty() && proceed(*m_underWay.front().command, until)) {
        const UnderWay done = std::move(m_underWay.front());
        m_underWay.pop_front();
        m_bytesUnderWay -= done.bytes;
        done.reply(std::move(done.command->reply));
        if (done.bytes > ReadHereBytes)
            letGo(done.command);
        if (until.hasExpired())
            break;
    }
}

void Dispatcher::takeTurn() {
    proceedUntil(QDeadlineTimer(TimeSlice));
    if (!m_underWay.empty())
        m_turn.start(0);
    readNext();
}

void Dispatcher::callEach(const CommandRow& row, SessionCall call) {
    auto command = std::make_shared<Command>();
    command->run = std::make_unique<CommandRun>(m_devices, row, std::move(call));
    enqueue({command, [](const QByteArray& /*reply*/) {}, 0});
}

// --- large requests ---

void Dispatcher::readNext() {
    if (m_reading || m_unread.empty() || m_bytesUnderWay > MaxBytesUnderWay)
        return;
    m_reading = true;
    m_reader.start([this, bytes = m_unread.front().request, peer = m_unread.front().peer] {
        const auto request = std::make_shared<Request>(read(bytes));
        request->peer = peer;
        QMetaObject::invokeMethod(
            &m_turn,
            [this, request] {
                m_reading = false;
                const Unread unread = std::move(m_unread.front());
                m_unread.pop_front();
                begin(*request, unread.request.size(), unread.reply);
                letGo(request);
                readNext();
            },
            Qt::QueuedConnection);
    });
}

/// Millions of values take long to free.
void Dispatcher::letGo(std::shared_ptr<void> large) {
    m_reader.start([large = std::move(large)] {});
}
