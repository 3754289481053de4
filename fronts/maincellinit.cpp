#include "fronts/maincellinit.h"

#include "fronts/websocketfront.h"

#include "api/requestmapper.h"
#include "core/loop/eventdispatcher.h"
#include "core/loop/mainloop.h"
#include "http/workerpool.h"

#include <QCoreApplication>

using namespace std::chrono_literals;

namespace {

/// Browsers wait for each other's slow requests (programs, speech) no longer than that many at once.
constexpr int MaxWorkers = 8;

} // namespace

MainCellInit::MainCellInit(RequestMapper* router, const QString& /*askey*/, int Meida_port, int wbport,
                           QString Meida_ip, QObject* parent)
    : QObject(parent)
    , m_wbport(wbport)
    , m_mediaAddress(std::move(Meida_ip))
    , m_mediaPort(Meida_port) {
    if (router)
        setRouter(router);
}

MainCellInit::~MainCellInit() {
    if (!m_front)
        return;
    callOnLoop(m_front, [this] { m_front->close(); });
    m_workers->stop();
    constexpr auto turn = 10ms;
    while (!m_workers->waitIdle(turn)) // a worker may be waiting for this loop
        QCoreApplication::processEvents(QEventLoop::AllEvents, static_cast<int>(turn.count()));
    m_thread.quit();
    m_thread.wait();
}

void MainCellInit::setOrigins(const QString& hosts) {
    const QStringList entries = hosts.split(QLatin1Char(','), Qt::SkipEmptyParts);
    for (const QString& host : entries)
        m_origins.append(host.trimmed());
}

void MainCellInit::setRouter(RequestMapper* router) {
    if (m_wbport <= 0 || m_front)
        return;
    WorkerPool::Settings settings;
    settings.minThreads = 1;
    settings.maxThreads = MaxWorkers;
    m_workers = std::make_unique<WorkerPool>(settings, router->database());
    const WebSocketFront::Settings front{static_cast<quint16>(m_wbport), m_mediaAddress, m_mediaPort,
                                         m_origins};
    m_front = new WebSocketFront(*router, *m_workers, m_events, front);
    m_front->moveToThread(&m_thread);
    connect(&m_thread, &QThread::finished, m_front, &QObject::deleteLater);
    m_thread.setObjectName(QStringLiteral("websocket"));
    m_thread.setEventDispatcher(new EpollEventDispatcher); // the thread owns it
    m_thread.start();
    m_boundPort = callOnLoop(m_front, [this] { return int(m_front->listen()); });
}
