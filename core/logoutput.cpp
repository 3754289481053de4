#include "core/logoutput.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// Whoever started the service may have the same open file: its flags must stay as they are. What the
// system's name of the descriptor opens has flags of its own. -1 where that may not be: a pipe of another
// user.
int reopened(int descriptor) {
    const QByteArray name = "/proc/self/fd/" + QByteArray::number(descriptor);
    return ::open(name.constData(), O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
}

} // namespace

LogOutput::LogOutput(int descriptor)
    : m_descriptor(descriptor) {
    struct stat st {};
    if (fstat(descriptor, &st) != 0)
        return;
    m_isSocket = S_ISSOCK(st.st_mode);
    const int own = S_ISFIFO(st.st_mode) || S_ISCHR(st.st_mode) ? reopened(descriptor) : -1;
    m_mustAsk = own < 0;
    if (own >= 0)
        m_descriptor = own;
}

bool LogOutput::write(const QByteArray& line) {
    const QByteArray bytes = m_isTorn ? '\n' + line : line;
    const ssize_t written = offer(bytes);
    if (written > 0)
        m_isTorn = written < bytes.size();
    return written == bytes.size();
}

// A pipe that is ready has room for MaxLine bytes, so that the write does not wait even where the descriptor
// could not be opened anew.
ssize_t LogOutput::offer(const QByteArray& bytes) const {
    const auto size = static_cast<size_t>(bytes.size());
    if (m_isSocket)
        return ::send(m_descriptor, bytes.constData(), size, MSG_DONTWAIT | MSG_NOSIGNAL);
    pollfd room{m_descriptor, POLLOUT, 0};
    const bool isReady = !m_mustAsk || ::poll(&room, 1, 0) == 1;
    return isReady ? ::write(m_descriptor, bytes.constData(), size) : -1;
}
