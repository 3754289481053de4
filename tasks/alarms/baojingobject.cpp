#include "tasks/alarms/baojingobject.h"

#include <algorithm>
#include <QDebug>
#include <QTimer>

using namespace std::chrono_literals;

namespace {
/// Sent at once after a halt; speakers buffer no more than this, and their queues hold twice as much.
constexpr auto MaxArrears = 1s;
} // namespace

Baojingobject::Baojingobject(QStringList files, QObject* parent)
    : QObject(parent)
    , m_files(std::move(files)) {}

Baojingobject::~Baojingobject() = default;

void Baojingobject::_start_init() {
    qDebug().noquote() << "_start_init" << m_files.size() << "files";
    qDebug().noquote() << "Startfile" << m_files.value(0);
    playFrom(0);
}

void Baojingobject::playFrom(int index) {
    for (m_index = index; m_index < m_files.size(); ++m_index) {
        if (ply_file(m_files.at(m_index)))
            return;
    }
    timerout();
}

bool Baojingobject::ply_file(const QString& path) {
    qDebug().noquote() << "ply_file" << path;
    auto reader = std::make_unique<MgReader>();
    if (!reader->open(path))
        return false;
    stopTimer();
    const int step = reader->header().ms;
    if (step < 1 || step > MaxStep)
        qWarning().noquote() << "MG_ms out of range, taken as" << DefaultStep << path << step;
    m_reader = std::move(reader);
    m_step = std::chrono::milliseconds(step < 1 || step > MaxStep ? DefaultStep : step);
    m_timer = new QTimer(this);
    m_timer->setTimerType(Qt::PreciseTimer);
    connect(m_timer, &QTimer::timeout, this, &Baojingobject::fuck_filepack);
    m_due = Clock::now();
    if (m_reader->atEnd())
        m_timer->start(0); // a file without packets is over at once
    else
        waitForNext();
    emit back_(path, m_index, m_files.size());
    return true;
}

void Baojingobject::fuck_filepack() {
    if (!m_reader)
        return;
    if (m_reader->atEnd()) {
        stopTimer();
        m_reader.reset();
        play_over();
        return;
    }
    waitForNext();
    const QByteArray packet = m_reader->next();
    const bool isLast = m_reader->atEnd();
    if (!packet.isEmpty()) {
        qDebug().noquote() << "present" << packet.size();
        back_mp3(packet);
    }
    if (isLast)
        emit imending(m_index);
}

/// A turn of the loop that took long is made up for, so that the speakers' buffers don't run dry: the
/// packets keep the sound's pace on the whole.
void Baojingobject::waitForNext() {
    const auto now = Clock::now();
    m_due = std::max(m_due + m_step, now - MaxArrears);
    m_timer->start(std::max(0ms, std::chrono::ceil<std::chrono::milliseconds>(m_due - now)));
}

void Baojingobject::back_mp3(const QByteArray& packet) {
    emit present_mp3data_s(packet);
}

void Baojingobject::play_over() {
    playFrom(m_index + 1);
}

void Baojingobject::timerout() {
    m_reader.reset();
    stopTimer();
    emit over();
    qDebug() << "timerout";
}

/// Often called from the timer's own signal.
void Baojingobject::stopTimer() {
    if (!m_timer)
        return;
    m_timer->stop();
    m_timer->deleteLater();
    m_timer = nullptr;
}
