#include "device/fortcpclient.h"
#include "device/packets.h"
#include "device/saobj.h"

#include <array>
#include <QDateTime>

// The words that speakers obey. A command is its bytes: no length, no end mark.

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

int SAobj::command(const char* word, const QByteArray& rest) {
    return wirteonlinecmd(word + rest);
}

// The second argument of the alarm commands takes no part in the bytes.
int SAobj::get_baojing(int a, int /*b*/) {
    return command("GET_BAOJING", a == 1 ? QByteArrayLiteral("EE") : QByteArray());
}

int SAobj::get_baojing_over(int a, int /*b*/) {
    return command("GET_BAOJING", a == 1 ? QByteArrayLiteral("GE") : QByteArray());
}

int SAobj::set_vol(int v) {
    return command("SETVOL", byte(v));
}

int SAobj::set_vol_V(int v) {
    const int written = command("V", byte(v));
    if (written > 0) {
        setVol(v);
        mirror("vol", v);
    }
    return written;
}

int SAobj::set_Mic_V(int e, int d) {
    const int written = command("M", byte(e) + byte(d));
    if (written > 0) {
        change(m_micE, e, SpeakerEvents::Information);
        change(m_micD, d, SpeakerEvents::Information);
        mirror("mic_e", e);
        mirror("mic_d", d);
    }
    return written;
}

int SAobj::set_debug_ks(int v) {
    const int written = command("I", v == 1 ? QByteArrayLiteral("K") : QByteArrayLiteral("S"));
    if (written > 0)
        change(m_debugState, v == 1 ? 1 : 2, SpeakerEvents::Information);
    return written;
}

int SAobj::set_GPIO_ks(int v) {
    return command("G", v == 1 ? QByteArrayLiteral("01") : QByteArrayLiteral("00"));
}

int SAobj::get_devinfo() {
    return command("JXXXXX");
}

int SAobj::PLAY_TTS(const QString& text) {
    return command("X", text.toUtf8());
}

int SAobj::push_ipinfo(const QString& address, int port) {
    return command("Y", packets::addressBytes(address) + packets::portBytes(static_cast<quint16>(port)));
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
    return command("AM", rest);
}

int SAobj::pushContentServer(const char* word, const QString& url) {
    const int written = command(word, url.toUtf8());
    if (written > 0)
        mirror("cdn_url", url);
    return written;
}

int SAobj::cdn_url(const QString& url) {
    return pushContentServer("A0", url);
}

int SAobj::cdn_url2(const QString& url) {
    return pushContentServer("A&", url);
}

int SAobj::addMp3list(const QByteArray& list) {
    return command("A1", list);
}

int SAobj::exec_Mp3_url(const QByteArray& list) {
    const int written = command("A2", list);
    if (written > 0)
        mirror("Preload", QStringLiteral("Added_list"));
    return written;
}

int SAobj::NewMp3list_start(const QByteArray& list) {
    const int written = command("A3", list);
    if (written > 0)
        mirror("Purge", QStringLiteral("Added_list"));
    return written;
}

int SAobj::Play_Mp3_url(const QByteArray& url) {
    return command("A4", url);
}

int SAobj::stopcurl() {
    return command("A5");
}

int SAobj::addMp3list2(const QByteArray& list) {
    return command("A6", list);
}

int SAobj::stopcurl2() {
    return command("A7");
}

int SAobj::addStreamlist(const QByteArray& url) {
    return url.startsWith("http") ? command("AS", url) : -1;
}

int SAobj::addStreamlistback(const QByteArray& url) {
    return command("AS", url);
}

int SAobj::addStreamlistbackascmd(const QByteArray& url) {
    return command("AS", url);
}

int SAobj::Test_unlineTasklist(int id) {
    return command("AS", decimal(id));
}

int SAobj::add_unlineTasklist(const QString& text, int first, int second, const QByteArray& bytes) {
    return command("AT", QByteArrayList{decimal(second), decimal(first), text.toUtf8(), bytes}.join("||"));
}

int SAobj::add_unlineTasklistGS(const QString& text, int first, int second, const QByteArray& bytes, int p,
                                int q, int r, int t) {
    return command("AT", QByteArrayList{decimal(second), decimal(first), text.toUtf8(), bytes, decimal(p),
                                        decimal(q), decimal(r), decimal(t)}
                             .join("||"));
}

int SAobj::remove_unlineTasklist(int id) {
    return command("AD", decimal(id));
}

int SAobj::stop_unlineTasklist(int id) {
    return command("AE", decimal(id));
}

int SAobj::Get_unlinetasklist() {
    return command("AL");
}

int SAobj::_AR() {
    return command("AR");
}

int SAobj::_AAT() {
    return command("A@");
}

int SAobj::_AAT_ALL() {
    return command("AF");
}

int SAobj::_AATS(const QString& a, const QString& b, const QString& c) {
    return command("A#", QByteArrayList{a.toUtf8(), b.toUtf8(), c.toUtf8()}.join('`'));
}

int SAobj::QT_test(const QByteArray& bytes) {
    const int written = wirteonlinecmd(bytes);
    if (written > 0)
        mirror("test", bytes);
    return written;
}
