// Events: clients of the real service see speakers change at once. Usage: eventload [SPEAKERS] [CLIENTS]
#include "support/eventclient.h"
#include "support/speakers.h"

#include <cstdio>
#include <QCoreApplication>
#include <QCryptographicHash>
#include <QElapsedTimer>
#include <QFile>
#include <QLoggingCategory>

namespace {

/// Counts what it is told; to read the objects would cost more than the service does.
struct Counter {
    QWebSocket socket;
    int items = 0;
    qint64 bytes = 0;

    Counter(quint16 port, const QByteArray& request) {
        QObject::connect(&socket, &QWebSocket::textMessageReceived, [this](const QString& text) {
            items += text.count("\"serial\":");
            bytes += text.size();
        });
        QObject::connect(&socket, &QWebSocket::connected,
                         [this, request] { socket.sendTextMessage(request); });
        socket.open(QUrl(QString("ws://127.0.0.1:%1/").arg(port)));
    }
};

qint64 statusKb(qint64 pid, const QByteArray& field) {
    QFile file(QString("/proc/%1/status").arg(pid));
    file.open(QIODevice::ReadOnly);
    const QByteArray text = file.readAll();
    return text.mid(text.indexOf(field + ':') + field.size() + 1)
        .simplified()
        .split(' ')
        .value(0)
        .toLongLong();
}

/// User and system time of the process so far, in ms.
qint64 cpuMs(qint64 pid) {
    QFile file(QString("/proc/%1/stat").arg(pid));
    file.open(QIODevice::ReadOnly);
    const QByteArrayList fields = file.readAll().split(' ');
    return (fields.value(13).toLongLong() + fields.value(14).toLongLong()) * 10;
}

} // namespace

int main(int argc, char** argv) {
    QCoreApplication application(argc, argv);
    const int speakers = argc > 1 ? atoi(argv[1]) : 1000;
    const int watching = argc > 2 ? atoi(argv[2]) : 100;
    ServiceOptions options;
    const quint16 port = freePort();
    options.settings = {{"wbport", port}};
    Service service(options);
    if (!service.start())
        return 1;
    const Account owner = service.addAccount("bench");
    const QByteArray token(43, 't');
    const QByteArray hash = QCryptographicHash::hash(token, QCryptographicHash::Sha256).toHex();
    service.sql(
        QString("INSERT INTO `apitoken` (`account`, `name`, `hash`, `created`, `expires`) VALUES (%1, "
                "'bench', '%2', 0, 0)")
            .arg(owner.id)
            .arg(QString(hash)));
    auto fleet = onlineFleet(speakersAt(service), speakers);
    service.giveSpeakers(owner, fleet->serials());

    const qint64 before = statusKb(service.pid(), "VmRSS");
    QElapsedTimer clock;
    clock.start();
    std::vector<std::unique_ptr<Counter>> clients;
    for (int i = 0; i < watching; ++i)
        clients.push_back(std::make_unique<Counter>(port, subscription(token)));
    const auto allToldOf = [&](int items) {
        return std::all_of(clients.begin(), clients.end(),
                           [&](const auto& client) { return client->items >= items; });
    };
    const auto report = [&](const char* what, qint64 cpu) {
        std::printf("%-22s %6lld ms, CPU of the service %6lld ms\n", what, clock.elapsed(),
                    cpuMs(service.pid()) - cpu);
        for (const auto& client : clients)
            client->items = 0;
    };
    qint64 cpu = cpuMs(service.pid());
    if (!waitFor([&] { return allToldOf(speakers); }, std::chrono::seconds(120)))
        return 1;
    report("snapshots", cpu);
    std::printf("%lld kB each; memory of the service %lld kB more\n", clients[0]->bytes / 1024,
                statusKb(service.pid(), "VmRSS") - before);
    for (int round = 0; round < 5; ++round) {
        holdsFor([] { return true; }, std::chrono::seconds(2)); // a rest between two changes
        for (const auto& client : clients)
            client->items = 0;
        cpu = cpuMs(service.pid());
        clock.restart();
        const QByteArray body = QString(R"({"targets":{"all":true},"volume":%1})").arg(5 + round).toUtf8();
        service.http().request("POST", "/api/v1/speakers/volume", body,
                               {{"Authorization", "Bearer " + token}, {"Content-Type", "application/json"}});
        if (!waitFor([&] { return allToldOf(speakers); }, std::chrono::seconds(120)))
            return 1;
        report("all changed", cpu);
    }
    cpu = cpuMs(service.pid());
    clock.restart();
    holdsFor([] { return true; }, std::chrono::seconds(10));
    report("at rest", cpu);
    return 0;
}
