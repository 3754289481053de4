#pragma once

#include <QMap>
#include <QString>

/// A text with places to fill in:
///     {name}                                    a variable's value
///     {if name} … {else name} … {end name}      one of two texts, by a condition
///     {loop name} … {else name} … {end name}    a text repeated; the other when it is repeated 0 times
/// Inside a loop its places are called "name.variable". Values are filled in as they are: escaping is
/// the caller's, who knows whether the text is HTML.
class Template {
public:
    explicit Template(QString text);

    bool isEmpty() const { return m_text.isEmpty(); }
    void setVariable(const QString& name, const QString& value);
    void setCondition(const QString& name, bool value);
    /// Repeats the loop's text, once with each row's variables.
    void loop(const QString& name, const QList<QMap<QString, QString>>& rows);
    QString text() const { return m_text; }

private:
    struct Block {
        int begin = 0; ///< of the opening place
        int end = 0;   ///< after the closing one
        QString body;
        QString otherwise;
    };
    bool findBlock(const QString& opening, const QString& name, int from, Block* block) const;
    QString m_text;
};
