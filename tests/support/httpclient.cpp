#include "support/httpclient.h"

#include <QEventLoop>
#include <QHttpMultiPart>
#include <QNetworkProxy>
#include <QNetworkReply>
#include <QUrlQuery>

namespace {

/// Longer than any answer that the service may take.
constexpr int kAnswerTimeoutMs = 60'000;

QByteArray encoded(const HttpParams& params) {
    QByteArray body;
    for (const auto& [name, value] : params) {
        if (!body.isEmpty())
            body += '&';
        body += QUrl::toPercentEncoding(name) + '=' + QUrl::toPercentEncoding(value);
    }
    return body;
}

QHttpPart part(const QString& disposition, const QByteArray& body) {
    QHttpPart result;
    result.setHeader(QNetworkRequest::ContentDispositionHeader, disposition);
    result.setBody(body);
    return result;
}

} // namespace

HttpClient::HttpClient(quint16 port, const QString& host)
    : m_base(QStringLiteral("http://%1:%2").arg(host).arg(port)) {
    m_network.setProxy(QNetworkProxy::NoProxy);
    m_network.setTransferTimeout(kAnswerTimeoutMs);
}

HttpReply HttpClient::finish(QNetworkReply* reply) {
    QEventLoop loop;
    QObject::connect(reply, &QNetworkReply::finished, &loop, &QEventLoop::quit);
    if (!reply->isFinished())
        loop.exec();
    HttpReply result;
    result.status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    result.body = reply->readAll();
    for (const auto& [name, value] : reply->rawHeaderPairs())
        result.headers.insert(name.toLower(), value);
    if (reply->error() != QNetworkReply::NoError)
        result.error = reply->errorString();
    reply->deleteLater();
    return result;
}

HttpReply HttpClient::get(const QString& path) {
    return request("GET", path);
}

HttpReply HttpClient::postForm(const QString& path, const HttpParams& params) {
    return request("POST", path, encoded(params), {{"Content-Type", "application/x-www-form-urlencoded"}});
}

HttpReply HttpClient::postUniapp(const QString& path, const QByteArray& body) {
    return request("POST", path, body, {{"Content-Type", "application/json"}, {"from-header", "uniapp"}});
}

HttpReply HttpClient::postMultipart(const QString& path, const HttpParams& params, const QString& fileField,
                                    const QString& fileName, const QByteArray& file) {
    QHttpMultiPart form(QHttpMultiPart::FormDataType);
    for (const auto& [name, value] : params)
        form.append(part(QStringLiteral("form-data; name=\"%1\"").arg(name), value.toUtf8()));
    QHttpPart upload =
        part(QStringLiteral("form-data; name=\"%1\"; filename=\"%2\"").arg(fileField, fileName), file);
    upload.setHeader(QNetworkRequest::ContentTypeHeader, "application/octet-stream");
    form.append(upload);
    return finish(m_network.post(QNetworkRequest(QUrl(m_base + path)), &form));
}

HttpReply HttpClient::request(const QByteArray& method, const QString& path, const QByteArray& body,
                              const QList<QPair<QByteArray, QByteArray>>& headers) {
    QNetworkRequest request{QUrl(m_base + path)};
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute, QNetworkRequest::ManualRedirectPolicy);
    for (const auto& [name, value] : headers)
        request.setRawHeader(name, value);
    return finish(m_network.sendCustomRequest(request, method, body));
}
