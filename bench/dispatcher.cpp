// Times what a command to the whole fleet costs before and after its bytes are written: reading the
// request, finding the sessions, writing the reply. The sessions are offline, so nothing is sent.
// Use: dispatcher [SESSIONS] [ROUNDS]

#include "device/severinit.h"

#include <algorithm>
#include <cstdio>
#include <QCoreApplication>
#include <QElapsedTimer>
#include <QJsonArray>
#include <QJsonDocument>
#include <vector>

namespace {

void time(const char* name, Severinit& registry, const QByteArray& request, int rounds) {
    std::vector<double> times;
    int replyBytes = 0;
    for (int round = 0; round < rounds; ++round) {
        QElapsedTimer timer;
        timer.start();
        replyBytes = registry.Diamonds_jsondidocom(request).size();
        times.push_back(static_cast<double>(timer.nsecsElapsed()) / 1e6);
    }
    std::sort(times.begin(), times.end());
    std::printf("%-22s %9d bytes in %9d out  median %7.2f ms  worst %7.2f ms\n", name, request.size(),
                replyBytes, times[times.size() / 2], times.back());
}

} // namespace

int main(int argc, char** argv) {
    QCoreApplication application(argc, argv);
    const int sessions = argc > 1 ? std::atoi(argv[1]) : 20000;
    const int rounds = argc > 2 ? std::max(1, std::atoi(argv[2])) : 15;
    Severinit registry({}, {}, {}, {}, {}, {}, {}, 3000, 2048, 20, 3000, 10, {}, 0, 0, 0, 0, 0, 0, 0, 0, 0);
    QJsonArray serials;
    for (int i = 0; i < sessions; ++i) {
        const QString sn =
            QStringLiteral("a0000000000000000000") + QStringLiteral("%1").arg(i, 12, 16, QLatin1Char('0'));
        registry.addSession(sn, &registry);
        serials << sn;
    }
    const QJsonObject volume{
        {QStringLiteral("mode"), 1009}, {QStringLiteral("snlist"), serials}, {QStringLiteral("vol"), 7}};
    const QJsonObject stop{{QStringLiteral("cmd"), QStringLiteral("FORCESTOP")},
                           {QStringLiteral("snlist"), serials}};
    time("LIST", registry, "{\"cmd\":\"LIST\"}", rounds);
    time("VOL_S to all", registry, QJsonDocument(volume).toJson(QJsonDocument::Compact), rounds);
    time("FORCESTOP to all", registry, QJsonDocument(stop).toJson(QJsonDocument::Compact), rounds);
    return 0;
}
