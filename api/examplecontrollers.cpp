#include "api/examplecontrollers.h"

#include "http/httprequest.h"
#include "http/httpresponse.h"
#include "http/templateloader.h"

namespace {
QByteArray escaped(const QByteArray& text) {
    return QString::fromUtf8(text).toHtmlEscaped().toUtf8();
}

void page(HttpResponse& response, const QByteArray& content) {
    response.setHeader("Content-Type", "text/html; charset=UTF-8");
    response.write("<!DOCTYPE html><html><body>" + content + "</body></html>", true);
}
} // namespace

void DumpController::service(HttpRequest& request, HttpResponse& response) {
    response.setHeader("Content-Type", "text/plain; charset=UTF-8");
    response.write(request.getMethod() + ' ' + request.getPath() + ' ' + request.getVersion() + '\n');
    const auto headers = request.getHeaderMap();
    for (auto header = headers.begin(); header != headers.end(); ++header)
        response.write(header.key() + ": " + header.value() + '\n');
    const auto parameters = request.getParameterMap();
    for (auto parameter = parameters.begin(); parameter != parameters.end(); ++parameter)
        response.write(parameter.key() + '=' + parameter.value() + '\n');
    response.write(request.getBody(), true);
}

void TemplateController::service(HttpRequest& request, HttpResponse& response) {
    const QByteArray name = request.getPath().mid(int(sizeof("/template/")) - 1);
    Template filled(QString{});
    if (m_templates)
        filled = m_templates->load(name.isEmpty() ? QByteArrayLiteral("demo") : name);
    if (filled.isEmpty())
        filled = Template(QStringLiteral("<h1>{method}</h1><p>{path}</p>"
                                         "{loop header}<p>{header.name}: {header.value}</p>{end header}"));
    QList<QMap<QString, QString>> rows;
    const auto headers = request.getHeaderMap();
    for (auto header = headers.begin(); header != headers.end(); ++header)
        rows.append({{QStringLiteral("name"), QString::fromUtf8(escaped(header.key()))},
                     {QStringLiteral("value"), QString::fromUtf8(escaped(header.value()))}});
    filled.setVariable(QStringLiteral("method"), QString::fromUtf8(escaped(request.getMethod())));
    filled.setVariable(QStringLiteral("path"), QString::fromUtf8(escaped(request.getPath())));
    filled.loop(QStringLiteral("header"), rows);
    page(response, filled.text().toUtf8());
}

void FormController::service(HttpRequest& request, HttpResponse& response) {
    if (request.getParameter("action") == "show")
        page(response, "<p>Name: " + escaped(request.getParameter("name")) + "</p>");
    else
        page(response, QByteArrayLiteral("<form method=\"post\"><input name=\"name\">"
                                         "<button name=\"action\" value=\"show\">Show</button></form>"));
}

void FileUploadController::service(HttpRequest& request, HttpResponse& response) {
    if (const QTemporaryFile* file = request.getUploadedFile("file"))
        page(response, "<p>Bytes: " + QByteArray::number(file->size()) + "</p>");
    else
        page(response, QByteArrayLiteral("<form method=\"post\" enctype=\"multipart/form-data\">"
                                         "<input type=\"file\" name=\"file\"><button>Send</button></form>"));
}

void LoginController::service(HttpRequest& request, HttpResponse& response) {
    const QByteArray credentials =
        QByteArray::fromBase64(request.getHeader("Authorization").mid(int(sizeof("Basic ")) - 1));
    if (credentials.contains(':')) {
        page(response, "<p>Hello, " + escaped(credentials.left(credentials.indexOf(':'))) + "</p>");
        return;
    }
    response.setStatus(401, "Not Authorized");
    response.setHeader("WWW-Authenticate", "Basic realm=\"Please log in\"");
    page(response, QByteArrayLiteral("<p>Please log in</p>"));
}

void SessionController::service(HttpRequest& request, HttpResponse& response) {
    const int visits = request.getCookie("visits").toInt() + 1;
    response.setCookie("visits", QByteArray::number(visits));
    page(response, "<p>Visit " + QByteArray::number(visits) + "</p>");
}
