#include "service/auditkeeper.h"

#include "core/sql/sqlite.h"
#include "service/audit.h"

#include <chrono>
#include <QDateTime>

namespace {
constexpr std::chrono::hours Pause{1};
} // namespace

AuditKeeper::AuditKeeper(const sqlite* database, int days, QObject* parent)
    : QObject(parent)
    , m_database(database)
    , m_days(days) {
    connect(&m_timer, &QTimer::timeout, this, &AuditKeeper::look);
    m_timer.start(Pause);
    QTimer::singleShot(std::chrono::seconds(30), this, &AuditKeeper::look);
}

AuditKeeper::~AuditKeeper() {
    m_isEnding = true;
    if (m_thread.joinable())
        m_thread.join();
}

void AuditKeeper::look() {
    if (m_isBusy)
        return;
    if (m_thread.joinable())
        m_thread.join();
    m_isBusy = true;
    m_thread = std::thread([this] {
        const auto database = m_database->forThread();
        const qint64 before = QDateTime::currentDateTimeUtc().addDays(-m_days).toMSecsSinceEpoch();
        while (!m_isEnding && forgetAudit(*database, before)) {
        }
        m_isBusy = false;
    });
}
