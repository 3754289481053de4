#pragma once

#include <QByteArray>
#include <QHash>
#include <QJsonDocument>
#include <QJsonObject>
#include <QList>
#include <QNetworkAccessManager>
#include <QPair>
#include <QString>
#include <QUrlQuery>

struct HttpReply {
    int status = 0; ///< 0: no answer
    QByteArray body;
    QHash<QByteArray, QByteArray> headers; ///< names in lower case
    QString error;

    QJsonObject json() const { return QJsonDocument::fromJson(body).object(); }
    QJsonValue operator[](const char* key) const { return json().value(QLatin1String(key)); }
    bool res() const { return json().value(QLatin1String("res")).toBool(); }
    QString info() const { return json().value(QLatin1String("info")).toString(); }
};

using HttpParams = QList<QPair<QString, QString>>;

/// Parameters from "name=value&name=value".
inline HttpParams form(const QString& text) {
    return QUrlQuery(text).queryItems(QUrl::FullyDecoded);
}

/// Blocking HTTP client over the event loop of the caller's thread, so that simulated speakers go on
/// meanwhile. One request, one answer; no redirects, no proxy.
class HttpClient {
public:
    explicit HttpClient(quint16 port, const QString& host = QStringLiteral("127.0.0.1"));

    HttpReply get(const QString& path);
    HttpReply postForm(const QString& path, const HttpParams& params);
    /// As the mobile client does: a JSON body and the header "from-header: uniapp".
    HttpReply postUniapp(const QString& path, const QByteArray& body);
    HttpReply postMultipart(const QString& path, const HttpParams& params, const QString& fileField,
                            const QString& fileName, const QByteArray& file);
    HttpReply request(const QByteArray& method, const QString& path, const QByteArray& body = {},
                      const QList<QPair<QByteArray, QByteArray>>& headers = {});

private:
    HttpReply finish(QNetworkReply* reply);

    QNetworkAccessManager m_network;
    QString m_base;
};
