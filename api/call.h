#pragma once

#include "service/serial.h"

#include <optional>
#include <QByteArray>
#include <QJsonObject>
#include <QMap>
#include <QString>
#include <QStringList>
#include <vector>

class HttpRequest;
class QTemporaryFile;
class RequestMapper;
struct StoreResult;

/// Parameters of one request: name to value, both as bytes.
using Params = QMap<QByteArray, QByteArray>;

/// A reply object as the endpoints send it: indented JSON.
QByteArray reply(const QJsonObject& object);
/// {"res": true, "info": "SUC"} and more.
QByteArray success(QJsonObject more = {});
/// {"res": false, "info": word}, with "code" when it is not 0.
QByteArray refusal(const QString& word, int code = 0);

/// The refusal of a sound that could not be stored.
QByteArray storeRefusal(const StoreResult& result);
/// The refusal of an empty list of speakers.
QByteArray noTargets();

/// What a JSON text holds; `params` gets the members of an object. Every value is a text; another type
/// counts as the empty text.
enum class JsonText { Unreadable, NoObject, Object };
JsonText readParams(const QByteArray& json, Params& params);

/// The entries of a list, separated by "|" or ",", that are numbers.
QList<qint64> numbersIn(const QString& list);
/// The same where all must be ids: nullopt when one is not a positive number.
std::optional<QList<qint64>> idList(const QString& list);
QString commaList(const QList<qint64>& ids);

/// Whether no character of the text is a control character: no line break, no tabulator, no NUL.
bool isOneLine(const QString& text);
/// Whether a speaker may be given the address, which its shell reads: one line and, with the key
/// `safeurls`, nothing that a shell acts on ("&" apart, which addresses need).
bool isPlayable(const QString& address, const RequestMapper& router);

/// One request to an endpoint: who asks for what. The steps before the endpoint return false when the
/// request must be refused, and refused() is then the reply to send. References what it is made of.
class Call {
public:
    /// `request` holds the uploaded file, if any; null without one.
    Call(const Params& params, const RequestMapper& router, QByteArray path = {},
         HttpRequest* request = nullptr)
        : m_params(params)
        , m_router(router)
        , m_path(std::move(path))
        , m_request(request) {}

    /// "id", "token" and `names` must be present, a "url" among them be playable and no text too long to
    /// store; otherwise the refusal's info is `word`.
    bool require(const std::vector<const char*>& names, const char* word);
    /// Unknown user: `unknownWord` with code -1; wrong token: "_FALSE6" with code -2.
    bool authenticate(const char* unknownWord = "_FALSE5") { return authenticateAs(userid(), unknownWord); }
    /// The same for an account that another parameter names.
    bool authenticateAs(int account, const char* unknownWord);
    /// For the endpoints without a test of their own for an unknown user: there the stored token
    /// counts as the empty text, and userid() is from then on a number that owns nothing.
    bool authenticateLoosely();
    QByteArray refused() const { return m_refused; }
    /// Makes `answer` the refusal; returns false.
    bool refuse(const QByteArray& answer);

    const Params& params() const { return m_params; }
    const RequestMapper& router() const { return m_router; }
    QString path() const { return QString::fromUtf8(m_path); }
    QTemporaryFile* file() const; ///< the upload "file"; null without one
    QString fileName() const;     ///< the parameter "filename", without it the upload's own; not cleaned

    int userid() const { return m_isNobody ? Nobody : number("id"); }
    bool has(const char* name) const;
    QString raw(const char* name) const;              ///< as sent, for keys
    QString text(const char* name) const;             ///< trimmed
    int number(const char* name) const;               ///< 0 when it is not a number
    static constexpr int MaxName = 255;               ///< bytes of a name
    bool isLonger(const char* name, int bytes) const; ///< in UTF-8, trimmed
    /// Whether a text that endpoints store is longer than it may be: rows are read in lists of any length.
    bool hasLongText() const;
    /// Split at "|"; an empty value is a list with no entries.
    QStringList list(const char* name) const;

private:
    static constexpr int Nobody = -1;
    const Params& m_params;
    const RequestMapper& m_router;
    QByteArray m_path;
    HttpRequest* m_request;
    QByteArray m_refused;
    bool m_isNobody = false; ///< the account is unknown; rows of a deleted one may still bear its number
};
