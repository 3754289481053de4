#pragma once

#include "http/template.h"

#include <QByteArray>
#include <QString>

class QSettings;
class QTextCodec;

/// Finds templates by name in one directory. Any thread.
class TemplateLoader {
public:
    /// Reads `path` (relative to the INI file; default "."), `suffix` (default ".tpl") and `encoding`
    /// (default UTF-8) of the group that `settings` stands in.
    explicit TemplateLoader(const QSettings* settings);

    /// A template without text when there is none of that name; a name is letters, digits, "-" and "_".
    Template load(const QByteArray& name) const;

private:
    QString m_directory;
    QString m_suffix;
    QTextCodec* m_codec; ///< Qt's
};
