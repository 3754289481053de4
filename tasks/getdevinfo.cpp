#include "tasks/getdevinfo.h"

#include "tasks/commandrelay.h"

#include <QMetaObject>

namespace {

constexpr std::chrono::milliseconds AnswerLimit{4000}; ///< shorter than the poll interval
constexpr qint64 MaxAnswer = 64 * 1024 * 1024;         ///< 20,000 speakers answer about 5 MB

} // namespace

Getdevinfo::Getdevinfo(QObject* parent)
    : QObject(parent) {
    m_thread.setMaxThreadCount(1);
}

Getdevinfo::~Getdevinfo() {
    m_cancelled = true;
    m_thread.waitForDone();
}

void Getdevinfo::doit(const QString& address, int port, const QByteArray& question) {
    if (m_asking)
        return;
    m_asking = true;
    m_thread.start([this, node = NodeAddress{address, port}, question] {
        const QByteArray answer = askNode(node, question, AnswerLimit, MaxAnswer, m_cancelled);
        QMetaObject::invokeMethod(
            this,
            [this, answer] {
                m_asking = false;
                emit over(answer);
            },
            Qt::QueuedConnection);
    });
}
