#pragma once

#include "http/httprequesthandler.h"

class TemplateLoader;

/// Demonstration pages of the HTTP layer, one idea each; they touch nothing of the service. Only the
/// first two are routed. Built for each request; any thread.

/// Echoes the request as plain text.
class DumpController : public HttpRequestHandler {
    Q_OBJECT
public:
    void service(HttpRequest& request, HttpResponse& response) override;
};

/// Renders the template that the path names ("/template/NAME"; "demo" without a name) with the
/// request's values filled in; a page of its own when there is no such template.
class TemplateController : public HttpRequestHandler {
    Q_OBJECT
public:
    /// `templates` may be null.
    explicit TemplateController(const TemplateLoader* templates)
        : m_templates(templates) {}
    void service(HttpRequest& request, HttpResponse& response) override;

private:
    const TemplateLoader* m_templates;
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
