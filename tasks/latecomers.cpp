#include "tasks/latecomers.h"

#include "tasks/tasxkobj.h"

#include "device/severinit.h"

#include <QDebug>
#include <utility>

namespace {

using namespace std::chrono_literals;

constexpr auto Gather = 200ms;

std::unique_ptr<Tasxkobj> playFor(const Tasxkobj& player, const QStringList& seeds) {
    auto play = std::make_unique<Tasxkobj>(nullptr);
    play->name = player.name;
    play->id = player.id;
    play->userid = player.userid;
    play->nodeid = player.nodeid;
    play->jiange = player.jiange;
    play->len = player.len;
    play->repeat = player.repeat;
    play->seeds = seeds;
    play->files = player.files;
    play->fileLengths = player.fileLengths;
    play->order = player.order;
    return play;
}

} // namespace

Latecomers::Latecomers(Severinit* devices, StartPlay start, QObject* parent)
    : QObject(parent)
    , m_devices(devices)
    , m_start(std::move(start)) {
    m_window.setSingleShot(true);
    m_gather.setSingleShot(true);
    connect(m_devices, &Severinit::registered, this, &Latecomers::arrive);
    connect(&m_gather, &QTimer::timeout, this, &Latecomers::startPlays);
    connect(&m_window, &QTimer::timeout, this, &Latecomers::close);
    m_window.start(Window);
}

Latecomers::~Latecomers() = default;

void Latecomers::keepAbsent(Tasxkobj& player) {
    if (!m_window.isActive())
        return;
    Bell bell;
    QStringList present;
    for (const QString& sn : qAsConst(player.seeds)) {
        if (m_devices->isOnline(sn))
            present += sn;
        else
            bell.absent += sn;
    }
    player.seeds = present;
    if (bell.absent.isEmpty())
        return;
    bell.play = playFor(player, {});
    qInfo() << "task waits for speakers" << player.name << player.id << bell.absent.size();
    m_bells[player.id] = std::move(bell);
}

void Latecomers::arrive(const QString& sn) {
    for (auto& [taskid, bell] : m_bells) {
        if (!bell.absent.remove(sn))
            continue;
        bell.here += sn;
        if (!m_gather.isActive())
            m_gather.start(Gather);
    }
}

void Latecomers::startPlays() {
    for (auto& [taskid, bell] : m_bells) {
        if (!bell.here.isEmpty())
            m_start(playFor(*bell.play, std::exchange(bell.here, {})));
    }
}

void Latecomers::close() {
    m_gather.stop();
    startPlays();
    for (const auto& [taskid, bell] : m_bells) {
        if (!bell.absent.isEmpty())
            qWarning() << "task start error" << bell.play->name << taskid
                       << "speakers that did not register:" << bell.absent.size();
    }
    m_bells.clear();
    disconnect(m_devices, nullptr, this, nullptr);
}
