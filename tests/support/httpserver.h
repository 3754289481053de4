#pragma once

#include "core/settings.h"
#include "http/httplistener.h"
#include "http/httprequesthandler.h"
#include "http/staticfilecontroller.h"

#include <functional>
#include <memory>
#include <QSettings>
#include <QTemporaryDir>

class HttpRequest;
class HttpResponse;

/// A handler made of a function; wants every path below "/api".
class FunctionHandler : public HttpRequestHandler {
public:
    using Service = std::function<void(HttpRequest&, HttpResponse&)>;
    explicit FunctionHandler(Service service)
        : m_service(std::move(service)) {}
    bool wants(const QByteArray&, const QByteArray& path) const override { return path.startsWith("/api"); }
    FileFate fateOfFile(const HttpRequest&, const QByteArray& field,
                        const QMap<QByteArray, QByteArray>& parameters) const override {
        return field != "f" ? FileFate::Ignored : FileFate(parameters.value("fate", "3").toInt());
    }
    void service(HttpRequest& request, HttpResponse& response) override { m_service(request, response); }

private:
    Service m_service;
};

/// The HTTP listener on a free loopback port, with a document root in a directory of its own.
struct HttpServer {
    explicit HttpServer(FunctionHandler::Service service, const QMap<QString, QVariant>& keys = {},
                        sqlite* database = nullptr)
        : handler(std::move(service)) {
        QDir(directory.path()).mkpath("docroot");
        const QString path = directory.filePath("config.ini");
        QSettings ini(path, QSettings::IniFormat);
        ini.setValue("docroot/path", "docroot");
        ini.setValue("listener/host", "127.0.0.1");
        ini.setValue("listener/port", 0);
        for (auto key = keys.begin(); key != keys.end(); ++key)
            ini.setValue(key.key(), key.value());
        ini.sync();
        const Settings settings = Settings::load(path, {});
        files = std::make_unique<StaticFileController>(DocrootSettings::of(settings));
        listener = std::make_unique<HttpListener>(database, HttpListenerSettings::of(settings), &handler);
        listener->setStaticFiles(files.get());
        listener->listen();
    }

    int port() const { return listener->serverPort(); }
    void put(const QString& name, const QByteArray& content) const {
        const QString path = directory.filePath("docroot/" + name);
        QDir().mkpath(QFileInfo(path).path());
        QFile file(path);
        file.open(QIODevice::WriteOnly);
        file.write(content);
    }

    QTemporaryDir directory;
    FunctionHandler handler;
    std::unique_ptr<StaticFileController> files;
    std::unique_ptr<HttpListener> listener;
};
