#include "device/didocmd.h"

#include "core/logthrottle.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <QDebug>
#include <QJsonDocument>
#include <QJsonObject>
#include <QPointer>
#include <QSocketNotifier>
#include <sys/socket.h>
#include <unistd.h>

using namespace std::chrono_literals;

namespace {

/// How long bytes that arrive after the last reply are read and thrown away: a close with bytes
/// unread would reset the connection and take the reply with it.
constexpr auto DrainTime = 2s;

/// Blocks of 256 kB read before the others have their turn: a request to a whole fleet.
constexpr int BlocksPerTurn = 4;

bool isTemporary(int error) {
    return error == EAGAIN || error == EWOULDBLOCK || error == EINTR;
}

ssize_t readBlock(int descriptor, const char*& data) {
    // Shared by all connections, which live on one thread: what is read is copied out at once.
    static std::array<char, 256 * 1024> block;
    data = block.data();
    return ::recv(descriptor, block.data(), block.size(), 0);
}

} // namespace

didocmd::didocmd(int descriptor, const QHostAddress& peer, QString tag, CommandHandler handler,
                 std::shared_ptr<CommandPeers> peers, QObject* parent)
    : QObject(parent)
    , m_reader(std::make_unique<QSocketNotifier>(descriptor, QSocketNotifier::Read))
    , m_writer(std::make_unique<QSocketNotifier>(descriptor, QSocketNotifier::Write))
    , m_handler(std::move(handler))
    , m_peers(std::move(peers))
    , m_place(m_peers->byAge.insert(m_peers->byAge.end(), this))
    , m_peer(peer)
    , m_tag(std::move(tag))
    , m_descriptor(descriptor) {
    m_writer->setEnabled(false);
    connect(m_reader.get(), &QSocketNotifier::activated, this, &didocmd::readable);
    connect(m_writer.get(), &QSocketNotifier::activated, this, &didocmd::writable);
    connect(&m_deadline, &QTimer::timeout, this, &didocmd::late);
    m_deadline.setSingleShot(true);
    m_deadline.start(Patience);
}

didocmd::~didocmd() {
    m_peers->buffered -= m_counted;
    m_peers->byAge.erase(m_place);
    m_reader.reset();
    m_writer.reset();
    ::close(m_descriptor);
}

void didocmd::readable() {
    if (m_draining) {
        drain();
        return;
    }
    for (int blocks = 0; blocks < BlocksPerTurn && receive(); ++blocks) {
    }
    if (m_closing)
        return;
    countBuffered();
    process();
}

/// Takes one block over; false when nothing more is there now.
bool didocmd::receive() {
    const char* data = nullptr;
    const ssize_t got = readBlock(m_descriptor, data);
    if (got < 0) {
        if (!isTemporary(errno))
            over();
        return false;
    }
    if (got == 0) {
        m_ended = true;
        m_reader->setEnabled(false);
    }
    m_parser.append(data, got);
    m_peers->byAge.splice(m_peers->byAge.end(), m_peers->byAge, m_place);
    return got > 0;
}

void didocmd::countBuffered() {
    const qsizetype bytes = m_parser.bufferedBytes() + m_running;
    m_peers->buffered += bytes - m_counted;
    m_counted = bytes;
}

void didocmd::process() {
    if (m_busy || m_waiting || m_closing)
        return;
    const QPointer<didocmd> self(this);
    processSlice();
    if (!self)
        return;
    countBuffered();
    if (!m_closing && !m_busy && m_counted > 0 && m_peers->buffered > MaxBufferedBytes)
        refuse(QStringLiteral("too many incomplete requests on this server"));
    settle();
}

void didocmd::processSlice() {
    const QPointer<didocmd> self(this);
    QElapsedTimer slice;
    slice.start();
    while (!isFull()) {
        const auto next = m_parser.next();
        if (next.status == CommandFrameParser::Status::Broken)
            refuse(next.error);
        if (next.status != CommandFrameParser::Status::Request) {
            m_closing = m_closing || m_ended;
            return;
        }
        answer(next.json);
        if (!self || m_busy)
            return;
        if (slice.elapsed() >= TimeSlice.count()) {
            processLater();
            return;
        }
    }
}

void didocmd::processLater() {
    m_waiting = true;
    QTimer::singleShot(0, this, [this] {
        m_waiting = false;
        process();
    });
}

void didocmd::answer(const QByteArray& request) {
    QElapsedTimer timer;
    timer.start();
    m_busy = m_isInside = true;
    m_running = request.size();
    m_reader->setEnabled(false);
    const QPointer<didocmd> self(this);
    m_handler(request, m_peer.toString(), [self, timer](QByteArray reply) {
        if (self)
            self->answered(std::move(reply), timer.elapsed());
    });
    if (self)
        m_isInside = false;
}

void didocmd::answered(QByteArray reply, qint64 milliseconds) {
    const int size = reply.size();
    m_busy = false;
    m_hasSpoken = true;
    m_deadline.stop();
    send(std::move(reply));
    if (mayLog("command finished", m_peer))
        qInfo().noquote() << m_tag << "finshed:" << m_peer.toString() << m_running << "bytes in" << size
                          << "out" << milliseconds << "ms";
    m_running = 0;
    if (!m_isInside)
        processLater();
}

void didocmd::send(QByteArray reply) {
    if (m_isGone)
        return;
    reply += "\r\n";
    if (m_unsent.isEmpty())
        m_unsent = std::move(reply);
    else
        m_unsent += reply;
    flush();
}

void didocmd::refuse(const QString& why) {
    if (mayLog("command refused", m_peer))
        qWarning().noquote() << m_tag << "json_error:" << m_peer.toString() << why << "- closed";
    m_closing = true;
    const QJsonObject reply{{QStringLiteral("res"), QStringLiteral("json_error")},
                            {QStringLiteral("info"), why}};
    send(QJsonDocument(reply).toJson(QJsonDocument::Compact));
}

void didocmd::flush() {
    while (m_sent < m_unsent.size()) {
        const ssize_t sent = ::send(m_descriptor, m_unsent.constData() + m_sent,
                                    static_cast<size_t>(m_unsent.size() - m_sent), MSG_NOSIGNAL);
        if (sent < 0 && isTemporary(errno))
            return;
        if (sent <= 0) { // nobody is there to answer
            m_isGone = m_ended = true;
            break;
        }
        m_deadline.stop();
        m_sent += static_cast<int>(sent);
    }
    m_unsent = QByteArray();
    m_sent = 0;
}

void didocmd::writable() {
    flush();
    process();
    settle();
}

/// Sets the notifiers and the deadline to what the connection waits for now.
void didocmd::settle() {
    if (m_draining)
        return;
    m_writer->setEnabled(!m_unsent.isEmpty());
    if (m_busy)
        return;
    m_reader->setEnabled(!m_closing && !m_ended && !m_waiting && !isFull());
    if (m_closing && m_unsent.isEmpty()) {
        if (m_ended) {
            over();
            return;
        }
        ::shutdown(m_descriptor, SHUT_WR);
        m_draining = true;
        m_reader->setEnabled(true);
        m_deadline.start(DrainTime);
        return;
    }
    if (m_hasSpoken && m_unsent.isEmpty() && !m_parser.isPartial())
        m_deadline.stop();
    else if (!m_deadline.isActive())
        m_deadline.start(Patience);
}

void didocmd::drain() {
    const char* data = nullptr;
    const ssize_t got = readBlock(m_descriptor, data);
    if (got == 0 || (got < 0 && !isTemporary(errno)))
        over();
}

void didocmd::late() {
    if (m_busy || m_waiting) { // ours is the delay, not the peer's
        m_deadline.start(Patience);
    } else if (m_draining) {
        over();
    } else if (m_parser.isPartial() && !isFull()) {
        refuse(QStringLiteral("request not complete within %1 s").arg(Patience.count() / 1000));
        settle();
    } else {
        if (mayLog("command connection closed", m_peer))
            qInfo().noquote() << m_tag << "closed:" << m_peer.toString()
                              << (m_unsent.isEmpty() ? "no request" : "does not read its replies");
        over();
    }
}

void didocmd::over() {
    m_closing = m_draining = true;
    m_reader->setEnabled(false);
    m_writer->setEnabled(false);
    m_deadline.stop();
    deleteLater();
}
