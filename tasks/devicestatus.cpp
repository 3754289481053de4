#include "tasks/devicestatus.h"

#include "tasks/writeback.h"

#include "core/sql/sqlite.h"
#include "device/saobj.h"
#include "device/severinit.h"
#include "device/speakerevents.h"

#include <QDebug>

namespace {

const QString AllUpdate =
    QStringLiteral("UPDATE `sbox_device_info` SET`vol` = '@vol',`kind` = '@kind',`xhstatus` = '@xhstatus',"
                   "`status` = '@status'WHERE (`device_seed` = '@sn' ) ;");
// When `xhstatus` is as it was.
const QString FixedUpdate =
    QStringLiteral("UPDATE `sbox_device_info` SET `vol` = '@vol', `status` = '@status', `kind` = '@kind' "
                   "WHERE (`device_seed` = '@sn' and `id` > 0 );");

constexpr SpeakerEvents::Kinds Registration =
    SpeakerEvents::Online | SpeakerEvents::Offline | SpeakerEvents::KnownAgain;
constexpr SpeakerEvents::Kinds InRow = Registration | SpeakerEvents::Volume | SpeakerEvents::StreamBegun |
                                       SpeakerEvents::StreamEnded | SpeakerEvents::Information;

} // namespace

DeviceStatus::DeviceStatus(Severinit* devices, sqlite* database, QObject* parent)
    : QObject(parent)
    , m_devices(devices)
    , m_database(database) {
    for (QTimer* const timer : {&m_writeTimer, &m_sliceTimer}) {
        timer->setSingleShot(true);
        timer->setTimerType(Qt::PreciseTimer);
    }
    connect(&m_writeTimer, &QTimer::timeout, this, &DeviceStatus::write);
    connect(&m_sliceTimer, &QTimer::timeout, this, &DeviceStatus::writeSlice);
    for (const SAobj* const session : m_devices->sessions())
        changed(session->sn());
    m_devices->events().listen(this, InRow, [this](const SpeakerEvents::Batch& batch) {
        for (const auto& [session, kinds] : batch.speakers) {
            if (!session)
                continue;
            if (kinds & Registration) // the row may be another than before
                m_written.remove(session->sn());
            changed(session->sn());
        }
    });
}

void DeviceStatus::changed(const QString& sn) {
    m_changed.insert(sn);
    if (m_writing.isEmpty() && !m_writeTimer.isActive())
        m_writeTimer.start(WriteInterval);
}

void DeviceStatus::write() {
    if (!m_writing.isEmpty() || m_changed.isEmpty())
        return;
    m_writeTimer.stop();
    m_writing = m_changed.values();
    m_changed.clear();
    m_next = 0;
    writeSlice();
}

void DeviceStatus::writeSlice() {
    Rows written;
    int next = m_next;
    const auto writeNext = [&] {
        if (next == m_writing.size())
            return false;
        writeRow(m_writing.at(next++), written);
        return true;
    };
    const bool isDone = WriteBack::writeSlice(*m_database, writeNext);
    if (isDone) {
        m_next = next;
        for (const auto& [sn, row] : written)
            m_written.insert(sn, row);
        if (m_next < m_writing.size())
            return m_sliceTimer.start(WriteBack::SlicePause);
    } else {
        qWarning() << "state of speakers not written, waiting:" << m_writing.size() - m_next;
        for (; m_next < m_writing.size(); ++m_next)
            m_changed.insert(m_writing.at(m_next));
    }
    m_writing.clear();
    if (!m_changed.isEmpty())
        m_writeTimer.start(WriteInterval);
}

void DeviceStatus::writeRow(const QString& sn, Rows& written) {
    const SAobj* const session = m_devices->session(sn);
    if (!session)
        return;
    const Row now{session->vol(), session->kind(), session->xuhao(), session->onlineState()};
    const auto before = m_written.constFind(sn);
    const bool isKnown = before != m_written.constEnd();
    if (isKnown && *before == now)
        return;
    SqlArgs args{{QStringLiteral("@vol"), now[0]},
                 {QStringLiteral("@kind"), now[1]},
                 {QStringLiteral("@status"), now[3]},
                 {QStringLiteral("@sn"), sn}};
    const bool isSameNumber = isKnown && before->at(2) == now[2];
    if (!isSameNumber)
        args.emplace_back(QStringLiteral("@xhstatus"), now[2]);
    const SqlResult result = m_database->run(isSameNumber ? FixedUpdate : AllUpdate, args);
    if (!result.ok)
        m_changed.insert(sn);
    else if (result.affected > 0)
        written.emplace_back(sn, now);
}
