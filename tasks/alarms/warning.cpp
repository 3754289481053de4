#include "tasks/alarms/warning.h"

#include "tasks/alarms/xindaosev.h"

#include <QDebug>
#include <QJsonArray>
#include <QJsonDocument>
#include <QRandomGenerator>

namespace {

/// The connection may be ended from inside its own signal.
void discard(Xindaosev* source) {
    source->disconnect();
    source->close();
    source->deleteLater();
}

} // namespace

Warning::Warning(int retryMs, QObject* parent)
    : QObject(parent)
    , m_source(nullptr, discard) {
    m_retry.setSingleShot(true);
    m_retry.setInterval(retryMs);
    connect(&m_retry, &QTimer::timeout, this, &Warning::tout);
}

Warning::~Warning() = default;

void Warning::init_warming(const QString& host, const QString& name, int port, const QStringList& channels) {
    m_host = host;
    m_name = name;
    m_port = port;
    m_channels = channels;
    m_source.reset(new Xindaosev);
    connect(m_source.get(), &Xindaosev::ers, this, &Warning::disc);
    connect(m_source.get(), &Xindaosev::got_data, this, &Warning::getData);
    connect(m_source.get(), &Xindaosev::con, this, &Warning::con);
    QJsonArray hello = QJsonArray::fromStringList(channels);
    hello.append(QString::asprintf("fuck_skn%d", QRandomGenerator::global()->bounded(10000)));
    m_source->send(hello);
    m_source->open(host, port);
}

void Warning::con() {
    m_retries = 0;
    qInfo().noquote() << "Warning connected:" << m_name << m_host << m_port;
}

void Warning::getData(const QJsonObject& report) {
    const int channel = report.value(QLatin1String("Chanel")).toInt(-1);
    const int status = report.value(QLatin1String("Status")).toInt();
    const QString text = report.value(QLatin1String("Text")).toString();
    if (channel < 0 || channel >= m_channels.size())
        qWarning().noquote() << "Warning: report of an unknown channel:" << m_name << channel;
    else if (status == AlarmStatus)
        setActive(channel, !text.contains(QLatin1String("CANCEL")));
}

/// A source repeats its reports: only a change is passed on. The cancelling is passed on always, for an
/// alarm may have begun before this service did.
void Warning::setActive(int channel, bool isActive) {
    if (isActive && m_active.contains(channel))
        return;
    if (isActive)
        m_active.insert(channel);
    else
        m_active.remove(channel);
    const QString group = m_channels.at(channel);
    qInfo().noquote() << "Warning" << (isActive ? "begins:" : "ends:") << m_name << group;
    const QString file = isActive ? group + QStringLiteral(".mp3F") : QStringLiteral("F_NONE.mp3");
    const QJsonObject request{{QStringLiteral("cmd"), QStringLiteral("PLAYAS")},
                              {QStringLiteral("group"), group},
                              {QStringLiteral("filelist"), QJsonArray{file}}};
    emit cmd(QJsonDocument(request).toJson(QJsonDocument::Compact));
}

void Warning::disc(const QString& error) {
    qWarning().noquote() << "Warning disconnected:" << m_name << m_host << m_port << error;
    if (m_isStopped)
        return;
    if (m_retries > MaxRetries) {
        qWarning().noquote() << "Warning given up:" << m_name << "after" << m_retries << "attempts";
        return;
    }
    ++m_retries;
    m_retry.start();
}

void Warning::tout() {
    if (m_isStopped)
        return;
    m_source.reset();
    init_warming(m_host, m_name, m_port, m_channels);
}

void Warning::dis() {
    m_isStopped = true;
    m_retry.stop();
    m_source.reset();
    deleteLater();
}
