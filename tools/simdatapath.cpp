#include "tools/simdatapath.h"

#include "device/words.h"

#include <QNetworkProxy>

namespace sim {
namespace {

const QByteArray kPull = QByteArrayLiteral("PULL\n");
const QByteArray kHeartbeat = words::Heartbeat;

} // namespace

DataPath::DataPath(Options options, QByteArray registration, const QHostAddress& localAddress,
                   QObject* parent)
    : QObject(parent)
    , m_options(options)
    , m_registration(std::move(registration))
    , m_localAddress(localAddress) {
    m_socket.setProxy(QNetworkProxy::NoProxy);
    m_pullTimer.setSingleShot(true);
    connect(&m_pullTimer, &QTimer::timeout, this, &DataPath::pull);
    connect(&m_socket, &QTcpSocket::connected, this, [this] {
        m_socket.setSocketOption(QAbstractSocket::LowDelayOption, 1);
        ++m_opened;
        m_socket.write(m_registration);
        emit connected();
    });
    connect(&m_socket, &QTcpSocket::disconnected, this, &DataPath::disconnected);
    connect(&m_socket, &QTcpSocket::readyRead, this, &DataPath::readChunk);
}

void DataPath::open(const QHostAddress& address, quint16 port) {
    m_socket.abort();
    if (!m_localAddress.isNull())
        m_socket.bind(m_localAddress);
    m_socket.connectToHost(address, port);
}

void DataPath::close() {
    m_pullTimer.stop();
    m_socket.abort();
}

void DataPath::pull() {
    if (isConnected())
        m_socket.write(kPull);
}

void DataPath::readChunk() {
    const QByteArray read = m_socket.readAll();
    if (read == kHeartbeat) {
        ++m_heartbeats;
    } else {
        m_received += read.size();
        if (m_options.keepBytes)
            m_bytes += read;
        emit chunk(read);
    }
    if (!m_options.pulls)
        return;
    if (m_options.pullDelay.count() > 0)
        m_pullTimer.start(m_options.pullDelay);
    else
        pull();
}

void DataPath::clear() {
    m_bytes.clear();
    m_received = 0;
    m_heartbeats = 0;
}

} // namespace sim
