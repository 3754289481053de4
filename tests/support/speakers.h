#pragma once

#include "support/service.h"
#include "support/waitfor.h"
#include "tools/simfleet.h"

/// Options for speakers of the service, of which the first has this serial (hexadecimal).
inline sim::SpeakerOptions speakersAt(const Service& service,
                                      const char* serial = "5eed0000000000000000000000000001") {
    sim::SpeakerOptions options;
    options.serial = QByteArray::fromHex(serial);
    options.port = service.devicePort();
    return options;
}

/// Speakers that have started and that the service knows.
inline std::unique_ptr<sim::Fleet> onlineFleet(const sim::SpeakerOptions& first, int count,
                                               const sim::Misfits& misfits = {}) {
    auto fleet = std::make_unique<sim::Fleet>(first, count, misfits);
    fleet->start();
    if (!waitFor([&] { return fleet->online() == count; }, std::chrono::seconds(60)))
        qFatal("only %d speakers online", fleet->online());
    return fleet;
}
