#include "tasks/getdevinfo.h"

#include "nodes/gate.h"

#include <QPointer>

namespace {

using namespace std::chrono_literals;

constexpr NodeCall::Limits Limits{1000ms, 4000ms}; // shorter than the poll interval

} // namespace

Getdevinfo::Getdevinfo(Gate* gate, QObject* parent)
    : QObject(parent)
    , m_gate(gate) {}

void Getdevinfo::doit(const QString& address, int port, const QByteArray& question) {
    if (m_asking)
        return;
    m_asking = true;
    const auto answered = [self = QPointer(this)](const NodeCall::Result& result) {
        if (!self)
            return;
        self->m_asking = false;
        emit self->over(result.answer);
    };
    m_gate->run({address, port}, question, answered, Limits);
}
