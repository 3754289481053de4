#include "service/lanes.h"

#include <QThread>

namespace {
constexpr int AtOnce = 2;             ///< encodings of an account, and programs of the query sets
constexpr int WaitingEncodings = 256; ///< in all; each is an upload on the disk
constexpr int WaitingOfAccount = 16;
constexpr int WaitingQueries = 64; ///< a few seconds' worth
} // namespace

JobLanes encodingLanes(int account) {
    return {{QByteArrayLiteral("encoding"), qMax(1, QThread::idealThreadCount()), WaitingEncodings},
            {"encoding " + QByteArray::number(account), AtOnce, WaitingOfAccount}};
}

JobLanes queryLanes() {
    return {{QByteArrayLiteral("query"), AtOnce, WaitingQueries}};
}
