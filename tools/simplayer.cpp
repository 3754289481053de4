#include "tools/simplayer.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFileInfo>
#include <QNetworkRequest>
#include <QSaveFile>
#include <QUrl>

namespace sim {
namespace {

constexpr int kFetchTimeoutMs = 60'000;
/// A body larger than any announcement is not kept in memory.
constexpr qint64 kMaxBody = 256LL * 1024 * 1024;

} // namespace

Player::Player(Options options, QNetworkAccessManager* network, QObject* parent)
    : QObject(parent)
    , m_options(std::move(options))
    , m_network(network) {
    m_end.setSingleShot(true);
    m_end.setTimerType(Qt::PreciseTimer);
    connect(&m_end, &QTimer::timeout, this, [this] {
        emit played(m_current);
        next();
    });
}

Player::~Player() {
    const auto open = m_open;
    for (QNetworkReply* reply : open) {
        reply->disconnect(this);
        reply->abort();
        reply->deleteLater();
    }
}

void Player::play(std::vector<ListEntry> list) {
    ++m_generation;
    m_end.stop();
    m_list = std::move(list);
    m_next = 0;
    m_busy = true;
    next();
}

void Player::stop() {
    ++m_generation;
    m_end.stop();
    m_list.clear();
    m_busy = false;
    emit idle();
}

void Player::next() {
    if (m_next >= m_list.size()) {
        m_busy = false;
        emit idle();
        return;
    }
    const QString address = m_list[m_next++].address;
    emit fetching(QUrl(address).path());
    if (m_options.pretended.count() > 0) {
        Fetch fetch;
        fetch.address = address;
        fetch.mp3.length = m_options.pretended;
        return begin(fetch);
    }
    fetch(address, [this, generation = m_generation](const Fetch& fetch) {
        if (generation != m_generation)
            return;
        if (fetch.ok() && fetch.mp3.isMp3)
            begin(fetch);
        else
            next();
    });
}

void Player::begin(const Fetch& fetch) {
    m_current = fetch;
    const double ms = static_cast<double>(fetch.mp3.length.count()) / m_options.speed;
    emit playing(fetch);
    m_end.start(static_cast<int>(ms));
}

void Player::fetch(const QString& address, std::function<void(const Fetch&)> done) {
    QNetworkRequest request{QUrl(address)};
    request.setTransferTimeout(kFetchTimeoutMs);
    QNetworkReply* reply = m_network->get(request);
    m_open.insert(reply);
    connect(reply, &QNetworkReply::downloadProgress, reply, [reply](qint64 received, qint64) {
        if (received > kMaxBody)
            reply->abort();
    });
    connect(reply, &QNetworkReply::finished, this, [this, reply, done = std::move(done)] {
        m_open.remove(reply);
        reply->deleteLater();
        const Fetch result = outcome(reply);
        emit fetched(result);
        done(result);
    });
}

Fetch Player::outcome(QNetworkReply* reply) const {
    Fetch fetch;
    fetch.address = reply->request().url().toString();
    fetch.httpStatus = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    const QByteArray body = reply->readAll();
    fetch.size = body.size();
    fetch.md5 = QCryptographicHash::hash(body, QCryptographicHash::Md5).toHex();
    if (reply->error() != QNetworkReply::NoError) {
        fetch.error = reply->errorString();
        return fetch;
    }
    fetch.mp3 = checkMp3(body);
    if (m_options.keepBodies)
        fetch.body = body;
    if (!m_options.saveDir.isEmpty()) {
        QDir().mkpath(m_options.saveDir);
        QSaveFile file(fileFor(fetch.address));
        if (file.open(QIODevice::WriteOnly) && file.write(body) == body.size() && file.commit())
            fetch.savedAs = file.fileName();
        else
            fetch.error = file.errorString();
    }
    return fetch;
}

QString Player::fileFor(const QString& address) const {
    const QString name = QFileInfo(QUrl(address).path()).fileName();
    return QDir(m_options.saveDir).filePath(name.isEmpty() ? QStringLiteral("download") : name);
}

void Player::preload(std::vector<ListEntry> list, std::function<void()> done) {
    if (list.empty()) {
        done();
        return;
    }
    const QString address = list.front().address;
    list.erase(list.begin());
    fetch(address,
          [this, list = std::move(list), done = std::move(done)](const Fetch&) { preload(list, done); });
}

void Player::purge(const std::vector<ListEntry>& list) {
    if (m_options.saveDir.isEmpty())
        return;
    for (const ListEntry& entry : list)
        QFile::remove(fileFor(entry.address));
}

} // namespace sim
