#pragma once

#include "device/packets.h"
#include "device/saobj.h"
#include "device/sever_listen.h"
#include "device/severinit.h"
#include "redis/speakermirror.h"
#include "redis/statemirror.h"
#include "support/service.h"
#include "support/waitfor.h"
#include "tools/speakerprotocol.h"

#include <memory>
#include <QCoreApplication>
#include <QMap>
#include <QPair>
#include <QTcpSocket>

/// Keeps what the device link would write to Redis.
class MirrorRecord : public StateMirror {
public:
    bool isConnected() const override { return connected; }
    bool isBacklogged() const override { return false; }
    void Set_sn_key_value(const QString& sn, const QString& field, const QVariant& value) override {
        fields[sn][field] = value.toString();
        ++writes;
    }
    void Warmingup_push(const QString& sn, const QString& /*time*/) override { up.append(sn); }
    void Warmingdown_push(const QString& sn, const QString& /*time*/) override { down.append(sn); }
    void online_newdevices(const QString& sn, int kindsk, int vol, int mic_d, int mic_e, const QString& l_ip,
                           const QString& r_ip, const QString& /*regDate*/) override {
        registered[sn] = QStringList{QString::number(kindsk),
                                     QString::number(vol),
                                     QString::number(mic_d),
                                     QString::number(mic_e),
                                     l_ip,
                                     r_ip};
    }

    bool connected = true;
    int writes = 0;
    QMap<QString, QMap<QString, QString>> fields; ///< by serial
    QStringList up;
    QStringList down;
    QMap<QString, QStringList> registered; ///< kind, vol, mic_d, mic_e, l_ip, r_ip
};

/// A plain TCP connection whose every byte the test decides.
class RawConnection {
public:
    explicit RawConnection(quint16 port, const QByteArray& first = {},
                           const QHostAddress& from = QHostAddress::LocalHost) {
        m_socket.bind(from);
        QObject::connect(&m_socket, &QTcpSocket::readyRead, [this] {
            m_reads += m_socket.readAll();
            m_received += m_reads.last();
        });
        m_socket.connectToHost(QHostAddress::LocalHost, port);
        waitFor([&] { return m_socket.state() == QAbstractSocket::ConnectedState; });
        send(first);
    }

    void send(const QByteArray& bytes) {
        m_socket.write(bytes);
        m_socket.flush();
    }
    /// Everything that came, keep-alives left out.
    QByteArray received() const { return QByteArray(m_received).replace("OKOK", ""); }
    const QByteArrayList& reads() const { return m_reads; } ///< what came, read by read
    int keepAlives() const { return m_received.count("OKOK"); }
    void forget() {
        m_received.clear();
        m_reads.clear();
    }
    bool waitReceived(const QByteArray& bytes) {
        return waitFor([&] { return received() == bytes; }, std::chrono::seconds(5));
    }
    bool isOpen() const { return m_socket.state() == QAbstractSocket::ConnectedState; }
    bool waitClosed(std::chrono::milliseconds deadline = std::chrono::seconds(5)) {
        return waitFor([&] { return !isOpen(); }, deadline);
    }
    void close() { m_socket.abort(); }
    /// Leaves what arrives where it is.
    void stopReading() {
        m_socket.setReadBufferSize(1);
        QObject::disconnect(&m_socket, &QTcpSocket::readyRead, nullptr, nullptr);
    }

private:
    QTcpSocket m_socket;
    QByteArray m_received;
    QByteArrayList m_reads;
};

/// The device link alone, in the test's own process, on free ports.
class DeviceLink {
public:
    explicit DeviceLink(const QString& ownAddress = QStringLiteral("10.1.2.3"))
        : port(freePort(3))
        , registry({}, {}, {}, {}, {}, {}, "key", 3000, 2048, 20, 3000, 10, ownAddress, 0, 0, 0, 0, 0, 0, 0,
                   0, 0)
        , listener(3000, port, freePort()) {
        listener.set_svi(&registry);
    }

    /// What has happened is told, and mirrored.
    static void turn() {
        for (int i = 0; i < 3; ++i)
            QCoreApplication::processEvents();
    }

    quint16 dataPort() const { return static_cast<quint16>(port + 2); }
    SAobj* session(const QByteArray& serial) const { return registry.session(serial.toHex()); }
    /// A registered speaker: bound, its first command ("JXXXXX") read.
    std::unique_ptr<RawConnection> speaker(const QByteArray& serial) {
        auto connection = std::make_unique<RawConnection>(port, sim::registrationPacket(serial, 20));
        connection->waitReceived("JXXXXX");
        connection->forget();
        return connection;
    }
    /// The same with its data connection attached.
    std::unique_ptr<RawConnection> attach(const QByteArray& serial) {
        auto data = std::make_unique<RawConnection>(dataPort(), sim::registrationPacket(serial, 20));
        waitFor([&] { return session(serial)->isMp3Connected(); });
        return data;
    }

    quint16 port;
    MirrorRecord mirror;
    Severinit registry;
    SpeakerMirror speakerMirror{registry, mirror};
    sever_listen listener;
};

inline QByteArray testSerial(int n = 1) {
    return sim::serialAt(QByteArray::fromHex("a0000000000000000000000000000000"), static_cast<quint32>(n));
}
