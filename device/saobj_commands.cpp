#include "device/fortcpclient.h"
#include "device/packets.h"
#include "device/saobj.h"
#include "device/words.h"

#include <array>
#include <QDateTime>
#include <QDebug>

// What the session tells its speaker.

namespace {
QByteArray byte(int value) {
    return QByteArray(1, static_cast<char>(value));
}

QByteArray decimal(int value) {
    return QByteArray::number(value);
}
} // namespace

void SAobj::fetchSocket() const {
    if (m_client)
        fetchObject(m_client->socket());
}

int SAobj::wirteonlinecmd(const QByteArray& command) {
    const int written = m_client && m_enabled ? m_client->Writedata(command) : NotBound;
    if (written > 0)
        note(SpeakerEvents::CommandAccepted);
    return written;
}

int SAobj::command(const words::Word& word, const QByteArray& argument) {
    return wirteonlinecmd(word.text + argument);
}

// The second argument of the alarm commands takes no part in the bytes.
int SAobj::get_baojing(int a, int /*b*/) {
    return command(a == 1 ? words::AlarmBegun : words::AlarmAny);
}

int SAobj::get_baojing_over(int a, int /*b*/) {
    return command(a == 1 ? words::AlarmOver : words::AlarmAny);
}

int SAobj::set_vol(int v) {
    return command(words::VolumeCode, byte(v));
}

int SAobj::set_vol_V(int v) {
    const int written = command(words::Volume, byte(v));
    if (written > 0) {
        setVol(v);
        note(SpeakerEvents::VolumeSet);
    }
    return written;
}

int SAobj::set_Mic_V(int e, int d) {
    const int written = command(words::Microphone, byte(e) + byte(d));
    if (written > 0) {
        change(m_micE, e, SpeakerEvents::Information);
        change(m_micD, d, SpeakerEvents::Information);
        note(SpeakerEvents::MicrophonesSet);
    }
    return written;
}

int SAobj::set_debug_ks(int v) {
    const int written = command(words::Debug, v == 1 ? QByteArrayLiteral("K") : QByteArrayLiteral("S"));
    if (written > 0)
        change(m_debugState, v == 1 ? 1 : 2, SpeakerEvents::Information);
    return written;
}

int SAobj::set_GPIO_ks(int v) {
    return command(words::Gpio, v == 1 ? QByteArrayLiteral("01") : QByteArrayLiteral("00"));
}

int SAobj::get_devinfo() {
    return command(words::DeviceInfo);
}

int SAobj::PLAY_TTS(const QString& text) {
    return command(words::Speak, text.toUtf8());
}

int SAobj::push_ipinfo(const QString& address, int port) {
    return command(words::ServerAddress,
                   packets::addressBytes(address) + packets::portBytes(static_cast<quint16>(port)));
}

int SAobj::domp3connect() {
    return m_mp3.requestConnection();
}

int SAobj::askForDataConnection() {
    const int written = command(words::DataConnect,
                                packets::addressBytes(addressForSpeaker()) + packets::portBytes(m_mp3Port));
    qInfo().noquote() << "MPORT:" << m_mp3Port << m_sn;
    return written;
}

/// The configured address, or the one at which the speaker reached us when none usable is configured.
QString SAobj::addressForSpeaker() const {
    const bool isUsable = QHostAddress(m_env.serverAddress).protocol() == QAbstractSocket::IPv4Protocol;
    if (isUsable || !m_client)
        return m_env.serverAddress;
    return m_client->socket()->localAddress().toString();
}

int SAobj::update_time() {
    const QDateTime now = QDateTime::currentDateTime();
    const QDate date = now.date();
    const QTime time = now.time();
    const std::array<int, 6> fields{date.year() - 1970, date.month(),  date.day(),
                                    time.hour(),        time.minute(), time.second()};
    QByteArray rest;
    for (const int field : fields)
        rest += byte(field);
    return command(words::Time, rest);
}

int SAobj::pushContentServer(const words::Word& word, const QString& url) {
    const int written = command(word, url.toUtf8());
    if (written > 0)
        mirror("cdn_url", url);
    return written;
}

int SAobj::cdn_url(const QString& url) {
    return pushContentServer(words::ContentServer, url);
}

int SAobj::cdn_url2(const QString& url) {
    return pushContentServer(words::ContentServer2, url);
}

int SAobj::addMp3list(const QByteArray& list) {
    return command(words::PlayList, list);
}

int SAobj::exec_Mp3_url(const QByteArray& list) {
    const int written = command(words::Preload, list);
    if (written > 0)
        mirror("Preload", QStringLiteral("Added_list"));
    return written;
}

int SAobj::NewMp3list_start(const QByteArray& list) {
    const int written = command(words::Purge, list);
    if (written > 0)
        mirror("Purge", QStringLiteral("Added_list"));
    return written;
}

int SAobj::Play_Mp3_url(const QByteArray& url) {
    return command(words::PlayUrl, url);
}

int SAobj::stopcurl() {
    return command(words::Stop);
}

int SAobj::addMp3list2(const QByteArray& list) {
    return command(words::PlayList2, list);
}

int SAobj::stopcurl2() {
    return command(words::Stop2);
}

int SAobj::addStreamlist(const QByteArray& url) {
    return url.startsWith("http") ? command(words::Stream, url) : -1;
}

int SAobj::addStreamlistback(const QByteArray& url) {
    return command(words::Stream, url);
}

int SAobj::addStreamlistbackascmd(const QByteArray& url) {
    return command(words::Stream, url);
}

int SAobj::Test_unlineTasklist(int id) {
    return command(words::Stream, decimal(id));
}

int SAobj::add_unlineTasklist(const QString& text, int first, int second, const QByteArray& bytes) {
    return command(words::TaskAdd,
                   QByteArrayList{decimal(second), decimal(first), text.toUtf8(), bytes}.join("||"));
}

int SAobj::add_unlineTasklistGS(const QString& text, int first, int second, const QByteArray& bytes, int p,
                                int q, int r, int t) {
    return command(words::TaskAdd, QByteArrayList{decimal(second), decimal(first), text.toUtf8(), bytes,
                                                  decimal(p), decimal(q), decimal(r), decimal(t)}
                                       .join("||"));
}

int SAobj::remove_unlineTasklist(int id) {
    return command(words::TaskRemove, decimal(id));
}

int SAobj::stop_unlineTasklist(int id) {
    return command(words::TaskStop, decimal(id));
}

int SAobj::Get_unlinetasklist() {
    return command(words::TaskList);
}

int SAobj::_AR() {
    return command(words::Reboot);
}

int SAobj::_AAT() {
    return command(words::TasksClear);
}

int SAobj::_AAT_ALL() {
    return command(words::TasksStop);
}

int SAobj::_AATS(const QString& a, const QString& b, const QString& c) {
    return command(words::FileTransfer, QByteArrayList{a.toUtf8(), b.toUtf8(), c.toUtf8()}.join('`'));
}

int SAobj::QT_test(const QByteArray& bytes) {
    const int written = wirteonlinecmd(bytes);
    if (written > 0)
        mirror("test", bytes);
    return written;
}
