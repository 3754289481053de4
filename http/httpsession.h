#pragma once

#include <chrono>
#include <memory>
#include <QByteArray>
#include <QMap>
#include <QMutex>
#include <QVariant>

/// What the service remembers of one browser between its requests. A light handle: copies mean the
/// same session. Thread-safe.
class HttpSession {
public:
    HttpSession() = default; ///< no session
    bool isNull() const { return !m_data; }
    QByteArray getId() const; ///< 32 hexadecimal digits

    void set(const QByteArray& key, const QVariant& value);
    void remove(const QByteArray& key);
    QVariant get(const QByteArray& key) const; ///< invalid when absent
    bool contains(const QByteArray& key) const;
    QMap<QByteArray, QVariant> getAll() const;

private:
    friend class HttpSessionStore;
    struct Data {
        QByteArray id;
        mutable QMutex mutex; ///< guards values
        QMap<QByteArray, QVariant> values;
        std::chrono::steady_clock::time_point lastUse; ///< guarded by the store's mutex
    };
    explicit HttpSession(std::shared_ptr<Data> data)
        : m_data(std::move(data)) {}
    std::shared_ptr<Data> m_data;
};
