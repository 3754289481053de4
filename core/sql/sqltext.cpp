#include "core/sql/sqltext.h"

#include "core/serial.h"

#include <algorithm>
#include <QHash>

namespace {

/// Longer lists stand in the text, digits and letters as they are: servers bound the number of parameters.
constexpr int MaxBoundList = 200;

/// A stretch of a template: text that is sent as it stands, a value outside of quotes, or a literal with
/// values in it.
struct Piece {
    enum Kind { Text, Bare, Literal, Misplaced } kind = Text;
    QString text;             ///< of Text; of Literal its pieces are in `parts`
    size_t arg = 0;           ///< of Bare and Misplaced
    std::vector<Piece> parts; ///< Text and Bare
};

struct Compiled {
    std::vector<QString> names; ///< of the arguments that it was compiled for, in their order
    std::vector<Piece> pieces;
    QString error;
};

bool isFor(const Compiled& compiled, const SqlArgs& args) {
    return std::equal(compiled.names.begin(), compiled.names.end(), args.begin(), args.end(),
                      [](const QString& name, const SqlArg& arg) { return name == arg.placeholder; });
}

// One pass over a template, the longest placeholder first at each place.
class Compiler {
public:
    Compiler(const QString& statement, const SqlArgs& args)
        : m_statement(statement) {
        for (size_t i = 0; i < args.size(); ++i) {
            m_result.names.push_back(args[i].placeholder);
            m_order.push_back(i);
        }
        std::stable_sort(m_order.begin(), m_order.end(), [this](size_t a, size_t b) {
            return m_result.names[a].size() > m_result.names[b].size();
        });
    }

    Compiled compile() {
        while (m_at < m_statement.size()) {
            const QChar c = m_statement.at(m_at);
            if (c == QLatin1Char('\'')) {
                literal();
            } else if (c == QLatin1Char('"') || c == QLatin1Char('`')) {
                quoted(c);
            } else {
                placeholderOr(Piece::Bare, m_result.pieces);
            }
        }
        return std::move(m_result);
    }

private:
    /// The whole of "..." or `...`, in which no value may stand.
    void quoted(QChar quote) {
        do
            placeholderOr(Piece::Misplaced, m_result.pieces);
        while (m_at < m_statement.size() && m_statement.at(m_at) != quote);
        if (m_at < m_statement.size())
            append(m_result.pieces, m_statement.at(m_at++));
    }

    void literal() {
        std::vector<Piece> parts;
        const int begin = m_at++;
        while (m_at < m_statement.size()) {
            const bool isQuote = m_statement.at(m_at) == QLatin1Char('\'');
            const bool isDoubled = isQuote && m_statement.midRef(m_at, 2) == QLatin1String("''");
            if (isQuote && !isDoubled)
                break;
            if (isDoubled) {
                append(parts, QLatin1Char('\''));
                m_at += 2;
            } else {
                placeholderOr(Piece::Bare, parts);
            }
        }
        ++m_at;
        const bool hasValues = std::any_of(parts.begin(), parts.end(),
                                           [](const Piece& part) { return part.kind != Piece::Text; });
        if (hasValues)
            m_result.pieces.push_back({Piece::Literal, {}, 0, std::move(parts)});
        else
            appendText(m_result.pieces, m_statement.mid(begin, m_at - begin));
    }

    void placeholderOr(Piece::Kind kind, std::vector<Piece>& pieces) {
        for (const size_t arg : m_order) {
            const QString& name = m_result.names[arg];
            if (!name.isEmpty() && m_statement.midRef(m_at, name.size()) == name) {
                pieces.push_back({kind, {}, arg, {}});
                m_at += name.size();
                return;
            }
        }
        const QChar c = m_statement.at(m_at++);
        const bool isMark = c == QLatin1Char('@') || c == QLatin1Char('$');
        if (isMark && m_at < m_statement.size() && isAsciiLetterOrDigit(m_statement.at(m_at)))
            m_result.error =
                QStringLiteral("no value for a placeholder at \"%1\"").arg(m_statement.mid(m_at - 1, 16));
        append(pieces, c);
    }

    static void append(std::vector<Piece>& pieces, QChar c) { appendText(pieces, QString(c)); }
    static void appendText(std::vector<Piece>& pieces, const QString& text) {
        if (pieces.empty() || pieces.back().kind != Piece::Text)
            pieces.emplace_back();
        pieces.back().text += text;
    }

    const QString& m_statement;
    std::vector<size_t> m_order; ///< of the arguments, longest name first
    Compiled m_result;
    int m_at = 0;
};

const Compiled& compiledFor(const QString& statement, const SqlArgs& args) {
    constexpr int MaxKept = 1000; // above the number of templates; edits build some of their own
    thread_local QHash<QString, Compiled> kept;
    auto found = kept.find(statement);
    if (found != kept.end() && isFor(*found, args))
        return *found;
    if (kept.size() >= MaxKept)
        kept.clear();
    return *kept.insert(statement, Compiler(statement, args).compile());
}

QString joined(const QList<qint64>& values) {
    QStringList texts;
    for (const qint64 value : values)
        texts += QString::number(value);
    return texts.join(QLatin1Char(','));
}

QString textOf(const SqlValue& value) {
    if (const auto* number = std::get_if<qint64>(&value))
        return QString::number(*number);
    if (const auto* numbers = std::get_if<QList<qint64>>(&value))
        return joined(*numbers);
    if (const auto* serials = std::get_if<QStringList>(&value))
        return serials->join(QStringLiteral("', '"));
    return std::get<QString>(value);
}

class Binder {
public:
    explicit Binder(const SqlArgs& args)
        : m_args(args) {}

    BoundSql bind(const Compiled& compiled) {
        m_out.error = compiled.error;
        for (const Piece& piece : compiled.pieces) {
            switch (piece.kind) {
            case Piece::Text:
                m_out.text += piece.text;
                break;
            case Piece::Bare:
                putBare(m_args[piece.arg]);
                break;
            case Piece::Literal:
                putLiteral(piece.parts);
                break;
            case Piece::Misplaced:
                refuse(QStringLiteral("a value in a name for %1"), m_args[piece.arg]);
            }
        }
        return std::move(m_out);
    }

private:
    void put(const QVariant& value) {
        m_out.text += QStringLiteral("? "); // the driver gives each mark a name: a word behind it would go on
        m_out.values += value;
    }

    void putBare(const SqlArg& arg) {
        const auto* numbers = std::get_if<QList<qint64>>(&arg.value);
        if (const auto* number = std::get_if<qint64>(&arg.value))
            put(*number);
        else if (!numbers)
            refuse(QStringLiteral("text outside of quotes for %1"), arg);
        else if (numbers->isEmpty())
            m_out.text += QStringLiteral("NULL"); // "in ( NULL )" matches nothing on every server
        else if (numbers->size() > MaxBoundList)
            m_out.text += joined(*numbers);
        else
            putEach(*numbers);
    }

    void putLiteral(const std::vector<Piece>& parts) {
        const SqlArg* only = parts.size() == 1 ? &m_args[parts.front().arg] : nullptr;
        if (const auto* serials = only ? std::get_if<QStringList>(&only->value) : nullptr)
            return putSerials(*serials, *only);
        QString text = QStringLiteral(""); // not null: that would be bound as NULL
        for (const Piece& part : parts) {
            if (part.kind == Piece::Bare && std::holds_alternative<QStringList>(m_args[part.arg].value))
                refuse(QStringLiteral("serials inside a text for %1"), m_args[part.arg]);
            text += part.kind == Piece::Text ? part.text : textOf(m_args[part.arg].value);
        }
        put(text);
    }

    void putSerials(const QStringList& serials, const SqlArg& arg) {
        if (!std::all_of(serials.begin(), serials.end(), isSerial))
            refuse(QStringLiteral("not a serial in the value of %1"), arg);
        else if (serials.isEmpty())
            put(QStringLiteral(""));
        else if (serials.size() > MaxBoundList)
            m_out.text += QLatin1Char('\'') + textOf(serials) + QLatin1Char('\'');
        else
            putEach(serials);
    }

    template<class List>
    void putEach(const List& values) {
        for (int i = 0; i < values.size(); ++i) {
            if (i > 0)
                m_out.text += QStringLiteral(", ");
            put(values.at(i));
        }
    }

    void refuse(const QString& why, const SqlArg& arg) {
        if (m_out.error.isEmpty())
            m_out.error = why.arg(arg.placeholder);
    }

    const SqlArgs& m_args;
    BoundSql m_out;
};

} // namespace

BoundSql bindSql(const QString& statement, const SqlArgs& args) {
    return Binder(args).bind(compiledFor(statement, args));
}

QString sqlLine(const QString& statement, const SqlArgs& args) {
    QString line;
    for (const Piece& piece : compiledFor(statement, args).pieces) {
        if (piece.kind == Piece::Literal) {
            line += QLatin1Char('\'');
            for (const Piece& part : piece.parts)
                line += part.kind == Piece::Text
                            ? QString(part.text).replace(QLatin1String("'"), QLatin1String("''"))
                            : textOf(args[part.arg].value);
            line += QLatin1Char('\'');
        } else {
            const bool isEmptyList = piece.kind == Piece::Bare && textOf(args[piece.arg].value).isEmpty();
            line += piece.kind == Piece::Text ? piece.text
                    : isEmptyList             ? QStringLiteral("NULL")
                                              : textOf(args[piece.arg].value);
        }
    }
    return line;
}
