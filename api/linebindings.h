#pragma once

#include <optional>
#include <QString>
#include <QStringList>

/// A speaker's alarm line bound to a stored task.
struct LineBinding {
    int userid; ///< account that made it
    QString lineid;
    QStringList serials;
    int taskid;
    QString address; ///< what the speaker requests when the line fires
    QString secret;  ///< in the address; empty: the address holds the account's password instead
};

/// The line-to-task bindings: one JSON file a line id, "<lineid>.json", below the directory of the
/// key `waringdir`, readable by the service alone. Any thread.
class LineBindings {
public:
    explicit LineBindings(QString directory)
        : m_directory(std::move(directory)) {}

    /// Letters, digits, "_" and "-", 1 to 64 of them.
    static bool isLineId(const QString& text);

    std::optional<LineBinding> read(const QString& lineid) const;
    /// Written under a temporary name and renamed. False when it could not be stored.
    bool write(const LineBinding& binding) const;
    /// True when there is no such binding any more.
    bool remove(const QString& lineid) const;

private:
    QString path(const QString& lineid) const;
    QString m_directory;
};
