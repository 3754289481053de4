#include "journal/broadcast.h"

namespace {
constexpr const char* Kinds[] = {"announcement", "bell", "live", "alarm", "direct"};
constexpr const char* States[] = {"waiting", "playing", "done", "stopped", "failed"};
constexpr const char* Receipts[] = {"waiting", "offline",   "sent", "started", "completed",
                                    "stopped", "overruled", "lost", "silent",  "refused"};
static_assert(std::size(Receipts) == ReceiptStates);
} // namespace

QString nameOf(Broadcast::Kind kind) {
    return QLatin1String(Kinds[static_cast<int>(kind)]);
}

QString nameOf(BroadcastState state) {
    return QLatin1String(States[static_cast<int>(state)]);
}

QString nameOf(ReceiptState state) {
    return QLatin1String(Receipts[static_cast<int>(state)]);
}
