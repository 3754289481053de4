#include "http/template.h"

Template::Template(QString text)
    : m_text(std::move(text)) {}

void Template::setVariable(const QString& name, const QString& value) {
    m_text.replace(QLatin1Char('{') + name + QLatin1Char('}'), value);
}

bool Template::findBlock(const QString& opening, const QString& name, int from, Block* block) const {
    const QString begin = QLatin1Char('{') + opening + QLatin1Char(' ') + name + QLatin1Char('}');
    const QString middle = QStringLiteral("{else ") + name + QLatin1Char('}');
    const QString end = QStringLiteral("{end ") + name + QLatin1Char('}');
    block->begin = m_text.indexOf(begin, from);
    const int close = block->begin < 0 ? -1 : m_text.indexOf(end, block->begin);
    if (close < 0)
        return false;
    const int bodyBegin = block->begin + begin.size();
    const int other = m_text.indexOf(middle, bodyBegin);
    const bool hasOther = other >= 0 && other < close;
    block->body = m_text.mid(bodyBegin, (hasOther ? other : close) - bodyBegin);
    block->otherwise =
        hasOther ? m_text.mid(other + middle.size(), close - other - middle.size()) : QString();
    block->end = close + end.size();
    return true;
}

void Template::setCondition(const QString& name, bool value) {
    Block block;
    for (int from = 0; findBlock(QStringLiteral("if"), name, from, &block);) {
        const QString chosen = value ? block.body : block.otherwise;
        m_text.replace(block.begin, block.end - block.begin, chosen);
        from = block.begin + chosen.size();
    }
}

void Template::loop(const QString& name, const QList<QMap<QString, QString>>& rows) {
    Block block;
    for (int from = 0; findBlock(QStringLiteral("loop"), name, from, &block);) {
        QString repeated;
        for (const auto& row : rows) {
            Template one(block.body);
            for (auto variable = row.begin(); variable != row.end(); ++variable)
                one.setVariable(name + QLatin1Char('.') + variable.key(), variable.value());
            repeated += one.text();
        }
        const QString chosen = rows.isEmpty() ? block.otherwise : repeated;
        m_text.replace(block.begin, block.end - block.begin, chosen);
        from = block.begin + chosen.size();
    }
}
