// What the board of speakers' state costs the main loop: one change of each of 19,500 speakers, told to a
// listener that only counts, without the board and with it.
#include "service/speakerboard.h"
#include "core/loop/eventdispatcher.h"
#include "device/saobj.h"
#include "device/severinit.h"

#include <cstdio>
#include <ctime>
#include <memory>
#include <QCoreApplication>

namespace {

constexpr int Speakers = 19'500;
constexpr int Rounds = 6;

double cpuMilliseconds() {
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) * 1e3 + static_cast<double>(time.tv_nsec) / 1e6;
}

void measure(Severinit& registry, const char* name, int volume) {
    QObject context;
    int told = 0;
    registry.events().listen(&context, SpeakerEvents::Volume, [&](const SpeakerEvents::Batch& batch) {
        told += static_cast<int>(batch.speakers.size());
    });
    for (int round = 0; round < Rounds; ++round) {
        told = 0;
        for (SAobj* const session : registry.sessions())
            session->setVol(volume + round);
        const double before = cpuMilliseconds();
        while (told < Speakers)
            QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
        std::printf("%s: %.2f ms\n", name, cpuMilliseconds() - before);
    }
}

} // namespace

int main(int argc, char** argv) {
    QCoreApplication::setEventDispatcher(new EpollEventDispatcher); // the application owns it
    QCoreApplication application(argc, argv);
    Severinit registry({}, {}, {}, {}, {}, {}, QStringLiteral("key"), 3000, 2048, 20, 3000, 10,
                       QStringLiteral("10.1.2.3"), 0, 0, 0, 0, 0, 0, 0, 0, 0);
    QObject parent;
    for (int n = 0; n < Speakers; ++n)
        registry.addSession(QStringLiteral("%1").arg(n, 32, 16, QLatin1Char('0')), &parent);
    measure(registry, "without", 1);
    {
        const SpeakerBoard board(&registry);
        measure(registry, "with the board", 11);
    }
    registry.removeSessionsOf(&parent);
    return 0;
}
