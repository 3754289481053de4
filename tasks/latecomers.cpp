#include "tasks/latecomers.h"

#include "tasks/tasxkobj.h"

#include "device/severinit.h"

#include <algorithm>
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
    play->priority = player.priority;
    play->volume = player.volume;
    return play;
}

} // namespace

Latecomers::Latecomers(Severinit* devices, StartPlay start, QObject* parent)
    : QObject(parent)
    , m_devices(devices)
    , m_start(std::move(start)) {
    m_close.setSingleShot(true);
    m_gather.setSingleShot(true);
    connect(m_devices, &Severinit::registered, this, &Latecomers::arrive);
    connect(&m_gather, &QTimer::timeout, this, &Latecomers::startPlays);
    connect(&m_close, &QTimer::timeout, this, &Latecomers::closeOver);
}

Latecomers::~Latecomers() = default;

void Latecomers::keepAbsent(Tasxkobj& player, std::optional<std::chrono::milliseconds> wait) {
    if (m_window.hasExpired())
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
    bell.until = wait ? QDeadlineTimer(*wait) : m_window;
    qInfo() << "task waits for speakers" << player.name << player.id << bell.absent.size();
    m_bells[player.id] = std::move(bell);
    closeOver();
}

void Latecomers::arrive(const QString& sn) {
    for (auto& [taskid, bell] : m_bells) {
        if (bell.until.hasExpired() || !bell.absent.remove(sn))
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

void Latecomers::closeOver() {
    std::optional<qint64> next; // ms
    for (auto bell = m_bells.begin(); bell != m_bells.end();) {
        const auto& [taskid, kept] = *bell;
        if (!kept.until.hasExpired() || !kept.here.isEmpty()) {
            const qint64 left = std::max<qint64>(kept.until.remainingTime(), Gather.count());
            next = std::min(next.value_or(left), left);
            ++bell;
            continue;
        }
        if (!kept.absent.isEmpty())
            qWarning() << "task start error" << kept.play->name << taskid
                       << "speakers that did not register:" << kept.absent.size();
        bell = m_bells.erase(bell);
    }
    if (next)
        m_close.start(std::chrono::milliseconds(*next));
}
