// One status refresh of a fleet: what it costs the main loop with one round trip a write, and with
// writes that are sent in batches and never waited for. Usage: redis_refresh [SESSIONS] [ROUNDS]
#include "redis/fuck_redis.h"
#include "support/redisserver.h"

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <functional>
#include <QCoreApplication>
#include <QElapsedTimer>
#include <vector>

namespace {

const QString Localhost = QStringLiteral("127.0.0.1");

struct Cost {
    double wallMs = 0; ///< from the first write until the last answer
    double cpuMs = 0;  ///< of this thread
    double turnMs = 0; ///< in one go, without serving anything else
};

double threadCpuMs() {
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) * 1e3 + static_cast<double>(now.tv_nsec) / 1e6;
}

double elapsedMs(const QElapsedTimer& timer) {
    return static_cast<double>(timer.nsecsElapsed()) / 1e6;
}

std::vector<QString> serials(int count) {
    std::vector<QString> list;
    for (int i = 0; i < count; ++i)
        list.push_back(QStringLiteral("%1").arg(i, 32, 16, QLatin1Char('0')));
    return list;
}

Cost waited(QtRedis& client, const std::vector<QString>& fleet) {
    Cost cost;
    const double cpu = threadCpuMs();
    QElapsedTimer timer;
    timer.start();
    for (const QString& sn : fleet) {
        QElapsedTimer turn;
        turn.start();
        client.hset(sn, QStringLiteral("STATUS"), QStringLiteral("ONLINE"));
        cost.turnMs = std::max(cost.turnMs, elapsedMs(turn));
    }
    cost.wallMs = elapsedMs(timer);
    cost.cpuMs = threadCpuMs() - cpu;
    return cost;
}

Cost batched(fuck_redis& link, const std::vector<QString>& fleet) {
    Cost cost;
    const double cpu = threadCpuMs();
    QElapsedTimer timer;
    timer.start();
    for (const QString& sn : fleet)
        link.Set_sn_key_value(sn, QStringLiteral("STATUS"), QStringLiteral("ONLINE"));
    cost.turnMs = elapsedMs(timer);
    while (link.writeLink().backlog() > 0 || link.writeLink().unanswered() > 0) {
        QElapsedTimer turn;
        turn.start();
        QCoreApplication::processEvents();
        cost.turnMs = std::max(cost.turnMs, elapsedMs(turn));
    }
    cost.wallMs = elapsedMs(timer);
    cost.cpuMs = threadCpuMs() - cpu;
    return cost;
}

void report(const char* name, int rounds, const std::function<Cost()>& measure) {
    std::vector<Cost> costs;
    for (int i = 0; i < rounds; ++i)
        costs.push_back(measure());
    const auto median = [&costs](double Cost::*value) {
        std::sort(costs.begin(), costs.end(), [value](auto& a, auto& b) { return a.*value < b.*value; });
        return costs[costs.size() / 2].*value;
    };
    std::printf("%-12s %10.1f %10.1f %12.2f\n", name, median(&Cost::wallMs), median(&Cost::cpuMs),
                median(&Cost::turnMs));
}

} // namespace

int main(int argc, char** argv) {
    QCoreApplication application(argc, argv);
    const int sessions = argc > 1 ? QByteArray(argv[1]).toInt() : 10000;
    const int rounds = std::max(1, argc > 2 ? QByteArray(argv[2]).toInt() : 5);
    RedisServer server;
    if (!server.start())
        return 1;
    const std::vector<QString> fleet = serials(sessions);
    QtRedis client(Localhost, server.port(), nullptr);
    fuck_redis link;
    if (!client.openConnection() || !link.try_connect(Localhost, server.port(), {}))
        return 1;
    std::printf("%d sessions, medians of %d\n%-12s %10s %10s %12s\n", sessions, rounds, "", "wall ms",
                "CPU ms", "one go ms");
    report("waited for", rounds, [&] { return waited(client, fleet); });
    report("batched", rounds, [&] { return batched(link, fleet); });
    return 0;
}
