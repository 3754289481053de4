#include "service/calendarkeeper.h"

#include "core/sql/sqlite.h"
#include "service/calendarimport.h"
#include "tasks/schedule/localtime.h"

#include <chrono>
#include <QDateTime>

namespace {
constexpr std::chrono::minutes Pause{5}; ///< between two looks at the date
} // namespace

CalendarKeeper::CalendarKeeper(const sqlite* database, QObject* parent)
    : QObject(parent)
    , m_database(database) {
    connect(&m_timer, &QTimer::timeout, this, &CalendarKeeper::look);
    m_timer.start(Pause);
    QTimer::singleShot(std::chrono::seconds(10), this, &CalendarKeeper::look);
}

CalendarKeeper::~CalendarKeeper() {
    if (m_thread.joinable())
        m_thread.join();
}

void CalendarKeeper::look() {
    const qint64 today = LocalTime().at(QDateTime::currentSecsSinceEpoch()).day;
    if (m_isBusy || m_doneOn == today)
        return;
    if (m_thread.joinable())
        m_thread.join();
    m_isBusy = true;
    m_thread = std::thread([this, today] {
        const auto database = m_database->forThread();
        if (expandCalendars(*database))
            m_doneOn = today;
        m_isBusy = false;
    });
}
