#pragma once

#include "support/waitfor.h"

#include <algorithm>
#include <QHash>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSet>
#include <QWebSocket>

inline QByteArray subscription(const QByteArray& token, const QJsonArray& topics = {"speakers"}) {
    return QJsonDocument(
               QJsonObject{{"path", "/api/v1/events"}, {"token", QString(token)}, {"topics", topics}})
        .toJson(QJsonDocument::Compact);
}

/// A client of the events that keeps what the events have told.
struct EventClient {
    QWebSocket socket;
    QHash<QString, QHash<QString, QJsonObject>> objects; ///< by topic and key
    QSet<QString> whole;                                 ///< topics whose snapshot has been told
    int snapshots = 0;
    int errorStatus = 0;
    int closeCode = 0;

    EventClient(quint16 port, const QByteArray& request) {
        QObject::connect(&socket, &QWebSocket::textMessageReceived, [this](const QString& text) {
            take(QJsonDocument::fromJson(text.toUtf8()).object());
        });
        QObject::connect(&socket, &QWebSocket::disconnected, [this] { closeCode = socket.closeCode(); });
        socket.open(QUrl(QString("ws://127.0.0.1:%1/").arg(port)));
        waitFor([this] { return socket.state() == QAbstractSocket::ConnectedState; });
        socket.sendTextMessage(request);
    }
    void take(const QJsonObject& message) {
        const QString topic = message["topic"].toString();
        for (const auto item : message["items"].toArray()) {
            const QJsonValue key = item.toObject()[topic == "speakers" ? "serial" : "id"];
            objects[topic][key.toVariant().toString()] = item.toObject();
        }
        for (const auto id : message["ids"].toArray())
            objects[topic].remove(id.toVariant().toString());
        errorStatus = message["status"].toInt();
        snapshots += message["event"] == "snapshot";
        if (message["event"] == "snapshot" && !message["more"].toBool())
            whole << topic;
    }
    int count(const char* key, const QJsonValue& value, const QString& topic = "speakers") const {
        const auto known = objects[topic];
        return int(std::count_if(known.begin(), known.end(),
                                 [&](const QJsonObject& object) { return object[key] == value; }));
    }
    bool sees(QStringList serials) const {
        QStringList known = objects["speakers"].keys();
        known.sort();
        serials.sort();
        return known == serials;
    }
};
