#include "api/onlinelist.h"

#include "api/call.h"
#include "core/loop/mainloop.h"
#include "device/severinit.h"

#include <QJsonArray>

namespace {

QByteArray replyWith(const QVector<OnlineDevice>& devices) {
    QJsonArray list;
    for (const OnlineDevice& device : devices)
        list.append(QJsonObject{{QStringLiteral("seed"), device.seed},
                                {QStringLiteral("status"), device.status},
                                {QStringLiteral("vol"), device.vol},
                                {QStringLiteral("voltage"), device.voltage},
                                {QStringLiteral("debug"), device.debug}});
    return reply({{QStringLiteral("res"), true}, {QStringLiteral("devlist"), list}});
}

} // namespace

QByteArray OnlineList::reply() {
    std::unique_lock<std::mutex> lock(m_lock);
    while (m_reply.isEmpty() || Clock::now() - m_taken >= MaxAge) {
        if (m_renewing)
            m_renewed.wait(lock);
        else
            renew(lock);
    }
    return m_reply;
}

/// Without the lock while it waits for the loop and writes the text.
void OnlineList::renew(std::unique_lock<std::mutex>& lock) {
    m_renewing = true;
    lock.unlock();
    Clock::time_point taken;
    const auto devices = callOnLoop(m_devices, [&] {
        taken = Clock::now();
        return m_devices->onlineDevices();
    });
    const QByteArray fresh = replyWith(devices);
    lock.lock();
    m_reply = fresh;
    m_taken = taken;
    m_renewing = false;
    m_renewed.notify_all();
}
