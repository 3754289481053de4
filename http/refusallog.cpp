#include "http/refusallog.h"

#include "core/logthrottle.h"

#include <QDebug>

void RefusalLog::add(const QHostAddress& peer, int status, const char* reason) {
    if (mayLog("HTTP: request refused", peer))
        qWarning("HTTP: request of %s refused with %d: %s", qPrintable(peer.toString()), status, reason);
}

void RefusalLog::note(const char* text) {
    if (mayLog("HTTP: trouble", QString()))
        qWarning("HTTP: %s", text);
}
