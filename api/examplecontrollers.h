#pragma once

#include "http/httprequesthandler.h"

/// Demonstration pages of the HTTP layer, one idea each; they touch nothing of the service. Only the
/// first two are routed. Built for each request; any thread.

/// Echoes the request as plain text.
class DumpController : public HttpRequestHandler {
    Q_OBJECT
public:
    void service(HttpRequest& request, HttpResponse& response) override;
};

/// Renders a page with the request's values filled in.
class TemplateController : public HttpRequestHandler {
    Q_OBJECT
public:
    void service(HttpRequest& request, HttpResponse& response) override;
};

/// A form, and what was entered in it.
class FormController : public HttpRequestHandler {
    Q_OBJECT
public:
    void service(HttpRequest& request, HttpResponse& response) override;
};

/// Tells the size of an uploaded file.
class FileUploadController : public HttpRequestHandler {
    Q_OBJECT
public:
    void service(HttpRequest& request, HttpResponse& response) override;
};

/// Asks for HTTP basic credentials and greets whoever gives some.
class LoginController : public HttpRequestHandler {
    Q_OBJECT
public:
    void service(HttpRequest& request, HttpResponse& response) override;
};

/// Counts a visitor's visits in a cookie.
class SessionController : public HttpRequestHandler {
    Q_OBJECT
public:
    void service(HttpRequest& request, HttpResponse& response) override;
};
