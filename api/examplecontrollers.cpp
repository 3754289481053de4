#include "api/examplecontrollers.h"

#include "http/httprequest.h"
#include "http/httpresponse.h"

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
    QByteArray content = QByteArrayLiteral("<h1>{method}</h1><p>{path}</p>");
    content.replace("{method}", escaped(request.getMethod()));
    content.replace("{path}", escaped(request.getPath()));
    page(response, content);
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
