// Everything of the HTTP server that reads a client's bytes. The first byte chooses the parser, the
// second the size of the pieces in which a body arrives.
#include "http/filerange.h"
#include "http/httpdate.h"
#include "http/multipartparser.h"
#include "http/requesthead.h"
#include "http/urlencoded.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>

namespace {

void require(bool holds) {
    if (!holds)
        std::abort();
}

/// Checks the order of the parser's calls.
class OrderSink : public MultipartParser::Sink {
public:
    int partBegins(const QByteArray& name, bool, const QByteArray& fileName) override {
        require(!m_isOpen && name.size() <= MultipartParser::MaxPartHead &&
                fileName.size() <= MultipartParser::MaxPartHead);
        m_isOpen = true;
        return 0;
    }
    int partData(const char*, int size) override {
        require(m_isOpen && size > 0);
        return 0;
    }
    int partEnds() override {
        require(m_isOpen);
        m_isOpen = false;
        return 0;
    }

private:
    bool m_isOpen = false;
};

void fuzzMultipart(const QByteArray& body, int piece) {
    OrderSink sink;
    MultipartParser parser("b", &sink);
    for (int at = 0; at < body.size(); at += piece) {
        if (parser.feed(body.constData() + at, std::min(piece, body.size() - at)) != 0)
            return;
    }
}

void fuzzHead(const QByteArray& text) {
    std::vector<HeaderField> fields;
    const QList<QByteArray> lines = text.split('\n');
    for (const QByteArray& line : lines) {
        const std::string_view view(line.constData(), static_cast<std::size_t>(line.size()));
        const std::size_t colon = std::min(view.find(':'), view.size());
        fields.push_back({view.substr(0, colon), view.substr(std::min(colon + 1, view.size()))});
    }
    BodyLength body;
    if (!checkHead("POST", "HTTP/1.1", fields, &body))
        require(body.length >= 0 && !(body.chunked && body.length > 0));
}

void fuzzRange(const QByteArray& text) {
    constexpr qint64 size = 1000;
    const FilePart part = choosePart({text, {}, {}, {}}, {size, "\"e\"", 0});
    require(part.offset >= 0 && part.length >= 0 && part.offset + part.length <= size);
    require(part.status == 200 || part.status == 206 || part.status == 416);
}

void fuzzText(const QByteArray& text) {
    QMap<QByteArray, QByteArray> fields;
    decodeForm(text, fields);
    if (const auto target = splitTarget(text))
        require(target->path.startsWith('/'));
    if (const auto date = parseHttpDate(text))
        httpDate(*date);
    require(MultipartParser::boundaryOf(text).size() <= MultipartParser::MaxBoundary);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 2)
        return 0;
    const QByteArray text(reinterpret_cast<const char*>(data) + 2, static_cast<int>(size) - 2);
    switch (data[0] % 4) {
    case 0:
        fuzzMultipart(text, data[1] + 1);
        break;
    case 1:
        fuzzHead(text);
        break;
    case 2:
        fuzzRange(text);
        break;
    default:
        fuzzText(text);
        break;
    }
    return 0;
}
