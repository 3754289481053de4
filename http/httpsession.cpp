#include "http/httpsession.h"

QByteArray HttpSession::getId() const {
    return m_data ? m_data->id : QByteArray();
}

void HttpSession::set(const QByteArray& key, const QVariant& value) {
    if (!m_data)
        return;
    const QMutexLocker locker(&m_data->mutex);
    m_data->values.insert(key, value);
}

void HttpSession::remove(const QByteArray& key) {
    if (!m_data)
        return;
    const QMutexLocker locker(&m_data->mutex);
    m_data->values.remove(key);
}

QVariant HttpSession::get(const QByteArray& key) const {
    return getAll().value(key);
}

bool HttpSession::contains(const QByteArray& key) const {
    return getAll().contains(key);
}

QMap<QByteArray, QVariant> HttpSession::getAll() const {
    if (!m_data)
        return {};
    const QMutexLocker locker(&m_data->mutex);
    return m_data->values;
}
