#pragma once

#include "http/httpsettings.h"
#include "http/template.h"

#include <QByteArray>
#include <QString>

class QTextCodec;

/// Finds templates by name in one directory. Any thread.
class TemplateLoader {
public:
    explicit TemplateLoader(const TemplateSettings& settings);

    /// A template without text when there is none of that name; a name is letters, digits, "-" and "_".
    Template load(const QByteArray& name) const;

private:
    QString m_directory;
    QString m_suffix;
    QTextCodec* m_codec; ///< Qt's
};
