#include "tools/simspeaker.h"

#include <algorithm>
#include <QJsonDocument>
#include <QNetworkProxy>
#include <sys/socket.h>
#include <utility>

namespace sim {
namespace {

const QByteArray kBeat = QByteArrayLiteral("BT\0\1");

quint8 byteAt(const Command& command, int i) {
    return i < command.argument.size() ? static_cast<quint8>(command.argument.at(i)) : quint8{0};
}

} // namespace

Speaker::Speaker(SpeakerOptions options, QObject* parent)
    : QObject(parent)
    , m_options(std::move(options))
    , m_volume(m_options.volume) {
    if (m_options.network == nullptr) {
        m_ownNetwork = std::make_unique<QNetworkAccessManager>();
        m_ownNetwork->setProxy(QNetworkProxy::NoProxy);
        m_options.network = m_ownNetwork.get();
    }
    if (!m_options.clockSet)
        m_clockOffset = -QDateTime::currentSecsSinceEpoch();
    m_player = new Player(m_options.player, m_options.network, this);
    const auto volume = static_cast<quint8>(m_options.volume);
    m_data = new DataPath(m_options.data, registrationPacket(m_options.serial, volume),
                          m_options.localAddress, this);
    m_socket.setProxy(QNetworkProxy::NoProxy);
    m_gap.setSingleShot(true);
    m_reconnect.setSingleShot(true);
    m_drop.setSingleShot(true);
    connect(&m_drop, &QTimer::timeout, this, &Speaker::drop);
    connect(&m_socket, &QTcpSocket::connected, this, &Speaker::onConnected);
    connect(&m_socket, &QTcpSocket::readyRead, this, &Speaker::readCommands);
    connect(&m_socket, &QTcpSocket::stateChanged, this, [this](QAbstractSocket::SocketState state) {
        if (state == QAbstractSocket::UnconnectedState)
            onDisconnected();
    });
    connect(&m_gap, &QTimer::timeout, this, &Speaker::writeNext);
    connect(&m_beat, &QTimer::timeout, this, [this] { report(kBeat); });
    connect(&m_reconnect, &QTimer::timeout, this, &Speaker::connectToServer);
    connect(m_player, &Player::fetching, this,
            [this](const QString& path) { reportPlay(words::Path + path.toUtf8()); });
    connect(m_player, &Player::fetched, this, [this](const Fetch& fetch) {
        m_fetches.push_back(fetch);
        emit fetched(fetch);
    });
    connect(m_player, &Player::playing, this, [this](const Fetch& fetch) {
        reportPlay(words::Playing);
        if (m_options.dropAfter.count() > 0)
            m_drop.start(m_options.dropAfter);
        emit playing(fetch);
    });
    connect(m_player, &Player::played, this, &Speaker::played);
    connect(m_player, &Player::idle, this, [this] { reportPlay(words::PathDone); });
}

Speaker::~Speaker() {
    m_socket.disconnect(this);
}

void Speaker::start() {
    m_stopped = false;
    connectToServer();
}

void Speaker::connectToServer() {
    if (!m_options.localAddress.isNull())
        m_socket.bind(m_options.localAddress);
    m_socket.connectToHost(m_options.host, m_options.port);
}

void Speaker::stop() {
    m_stopped = true;
    m_reconnect.stop();
    m_data->close();
    m_socket.disconnectFromHost();
}

void Speaker::drop() {
    m_data->close();
    const linger reset{1, 0};
    setsockopt(static_cast<int>(m_socket.socketDescriptor()), SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
    m_socket.abort();
}

void Speaker::onConnected() {
    m_socket.setSocketOption(QAbstractSocket::LowDelayOption, 1);
    m_reports.clear();
    report(registrationPacket(m_options.serial, static_cast<quint8>(m_volume)));
    if (m_clockOffset != 0)
        report(words::TimeWanted);
    m_beat.start(m_options.beatInterval);
    emit connected();
}

void Speaker::onDisconnected() {
    m_beat.stop();
    m_reports.clear();
    emit disconnected(std::exchange(m_online, false));
    if (!m_stopped && m_options.reconnectPause.count() > 0)
        m_reconnect.start(m_options.reconnectPause);
}

void Speaker::report(const QByteArray& bytes) {
    m_reports.enqueue(bytes);
    if (!m_gap.isActive())
        writeNext();
}

void Speaker::reportPlay(const QByteArray& bytes) {
    if (!m_options.isSilent)
        report(bytes);
}

void Speaker::writeNext() {
    if (m_reports.isEmpty() || !isConnected())
        return;
    m_socket.write(m_reports.dequeue());
    m_socket.flush();
    m_gap.start(m_options.reportGap);
}

void Speaker::readCommands() {
    QByteArray read = m_socket.readAll();
    m_keepAlives += takeKeepAlives(read);
    if (read.isEmpty())
        return;
    const Command command = commandOf(read);
    m_commands.push_back(command);
    obey(command);
    emit commandReceived(command);
}

void Speaker::obey(const Command& command) {
    switch (command.op) {
    case Op::DeviceInfo:
        report('J' + QJsonDocument(deviceInfo()).toJson(QJsonDocument::Compact));
        if (!m_online) {
            m_online = true;
            emit online();
        }
        break;
    case Op::Volume:
        m_volume = byteAt(command, 0);
        break;
    case Op::VolumeCode:
        m_volume = levelOfCode(byteAt(command, 0));
        break;
    case Op::Microphone:
        m_micE = byteAt(command, 0);
        m_micD = byteAt(command, 1);
        break;
    case Op::Debug:
        m_debug = command.argument == "K" ? 1 : 2;
        break;
    case Op::Gpio:
        m_gpio = command.argument == "01" ? 1 : 0;
        break;
    case Op::Time: {
        const QDate date(byteAt(command, 0) + 1970, byteAt(command, 1), byteAt(command, 2));
        const QTime time(byteAt(command, 3), byteAt(command, 4), byteAt(command, 5));
        m_clockOffset = QDateTime::currentDateTime().secsTo(QDateTime(date, time));
        break;
    }
    case Op::DataConnect:
        report(QByteArrayLiteral("KOK"));
        m_data->open(addressOf(command.argument), portOf(command.argument));
        break;
    case Op::Reboot:
        m_socket.disconnectFromHost();
        break;
    case Op::Stop:
        m_player->stop();
        break;
    case Op::PlayList:
    case Op::PlayUrl:
    case Op::Preload:
    case Op::Purge:
        obeyPlay(command);
        break;
    case Op::Stream:
        obeyStream(command);
        break;
    default:
        obeyTask(command);
    }
}

void Speaker::obeyPlay(const Command& command) {
    std::vector<ListEntry> list;
    for (const QByteArray& entry : command.argument.split('\n')) {
        if (bind(entry))
            continue;
        for (const ListEntry& parsed : parseList(entry))
            list.push_back(parsed);
    }
    if (list.empty())
        return;
    if (command.op == Op::Preload) {
        m_player->preload(list, [this] { report(words::Preloaded); });
    } else if (command.op == Op::Purge) {
        m_player->purge(list);
        report(words::Purged);
    } else {
        m_player->play(list);
    }
}

void Speaker::obeyStream(const Command& command) {
    bool isTaskId = false;
    command.argument.toInt(&isTaskId);
    if (!isTaskId)
        obeyPlay(command);
}

bool Speaker::bind(const QByteArray& entry) {
    const Binding binding = parseBinding(entry);
    if (binding.kind == Binding::Kind::Bind)
        m_lines.insert(binding.line, binding.address);
    else if (binding.kind == Binding::Kind::Clear)
        m_lines.remove(binding.line);
    return binding.kind != Binding::Kind::None;
}

void Speaker::obeyTask(const Command& command) {
    switch (command.op) {
    case Op::TaskAdd:
        m_tasks.append(QString::fromUtf8(command.argument));
        break;
    case Op::TasksClear:
        m_tasks.clear();
        break;
    case Op::TaskList:
        report(words::Tasks + m_tasks.join(QLatin1Char('\n')).toUtf8());
        break;
    case Op::TaskRemove: {
        const QString id = QString::fromLatin1(command.argument) + QStringLiteral("||");
        for (int i = int(m_tasks.size()) - 1; i >= 0; --i) {
            const QStringList fields = m_tasks.at(i).split(QStringLiteral("||"));
            if (m_tasks.at(i).startsWith(id) || fields.value(1) == QString::fromLatin1(command.argument))
                m_tasks.removeAt(i);
        }
        break;
    }
    default:
        break; // recorded, nothing to obey
    }
}

bool Speaker::fire(const QString& line) {
    const QString address = m_lines.value(line);
    if (address.isEmpty())
        return false;
    m_player->fetch(address, [this, line, address](const Fetch& fetch) {
        emit fired(line, fetch);
        if (fetch.ok() && fetch.mp3.isMp3)
            m_player->play({{address, {}, {}}});
    });
    return true;
}

QJsonObject Speaker::deviceInfo() const {
    const QDateTime now = QDateTime::currentDateTime().addSecs(m_clockOffset);
    return {
        {QStringLiteral("kind"), 1},
        {QStringLiteral("vol"), m_volume},
        {QStringLiteral("Mic_d"), m_micD},
        {QStringLiteral("Mic_e"), m_micE},
        {QStringLiteral("debug"), m_debug},
        {QStringLiteral("gpio"), m_gpio},
        {QStringLiteral("l_ip"), m_socket.localAddress().toString()},
        {QStringLiteral("Date"), now.toString(QStringLiteral("yyyy-MM-dd hh:mm:ss"))},
    };
}

int Speaker::count(Op op) const {
    return static_cast<int>(
        std::count_if(m_commands.begin(), m_commands.end(), [op](const Command& c) { return c.op == op; }));
}

const Command* Speaker::last(Op op) const {
    const auto it =
        std::find_if(m_commands.rbegin(), m_commands.rend(), [op](const Command& c) { return c.op == op; });
    return it == m_commands.rend() ? nullptr : &*it;
}

void Speaker::forget() {
    m_commands.clear();
    m_fetches.clear();
}

} // namespace sim
