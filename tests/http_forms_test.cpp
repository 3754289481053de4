#include "http/multipartparser.h"
#include "http/templateloader.h"
#include "support/testmain.h"

#include <QSettings>
#include <QTemporaryDir>

/// Multipart bodies in every division, and templates.
class HttpFormsTest : public QObject {
    Q_OBJECT

private slots:
    void multipart_data();
    void multipart();
    void boundaries_data();
    void boundaries();
    void templates_data();
    void templates();
    void templatesAreFoundByName();
};

namespace {

/// Writes down what the parser tells: "name=value;" or "name<file>=value;".
class Recorder : public MultipartParser::Sink {
public:
    QByteArray text;
    int partBegins(const QByteArray& name, bool isFile, const QByteArray& fileName) override {
        text += name + (isFile ? '<' + fileName + '>' : QByteArray()) + '=';
        return 0;
    }
    int partData(const char* data, int size) override {
        text.append(data, size);
        return 0;
    }
    int partEnds() override {
        text += ';';
        return 0;
    }
};

} // namespace

void HttpFormsTest::multipart_data() {
    QTest::addColumn<QByteArray>("body");
    QTest::addColumn<int>("status");
    QTest::addColumn<QByteArray>("parts");
    const QByteArray field = "Content-Disposition: form-data; name=";
    const auto add = [](const char* name, const QByteArray& body, int status, const QByteArray& parts) {
        QTest::newRow(name) << body << status << parts;
    };
    add("field", "--b\r\n" + field + "\"a\"\r\n\r\n1\r\n--b--\r\n", 0, "a=1;");
    add("preamble and epilogue", "x\r\n--b\r\n" + field + "a\r\n\r\n1\r\n--b--\r\nrest\r\n--b", 0, "a=1;");
    add("two fields, one empty",
        "--b\r\n" + field + "\"a\"\r\n\r\n\r\n--b\r\n" + field + "\"c\"\r\n\r\n2\r\n--b--", 0, "a=;c=2;");
    add("file",
        "--b\r\n" + field + "\"f\"; filename=\"x;y.mp3\"\r\nContent-Type: audio/mpeg\r\n\r\nID3\r\n--b--", 0,
        "f<x;y.mp3>=ID3;");
    add("escaped quotes", "--b\r\n" + field + "\"f\"; filename=\"a\\\"b\\c\"\r\n\r\n\r\n--b--", 0,
        "f<a\"b\\c>=;");
    add("lower-case header", "--b\r\ncontent-disposition:form-data;name=a\r\n\r\n1\r\n--b--", 0, "a=1;");
    add("nearly a boundary", "--b\r\n" + field + "a\r\n\r\n\r\n-\r\n--\r\n--a\r--b\n--b\r\n--b--", 0,
        "a=\r\n-\r\n--\r\n--a\r--b\n--b;");
    add("boundary and more", "--b\r\n" + field + "a\r\n\r\n1\r\n--bx\r\n", 400, "a=1;");
    add("no disposition", "--b\r\nContent-Type: x\r\n\r\n1\r\n--b--", 400, "");
    add("no name", "--b\r\nContent-Disposition: form-data; filename=x\r\n\r\n1\r\n--b--", 400, "");
    add("endless part head", "--b\r\n" + QByteArray(MultipartParser::MaxPartHead + 1, 'x'), 400, "");
    QByteArray many;
    for (int i = 0; i <= MultipartParser::MaxParts; ++i)
        many += "--b\r\n" + field + "a\r\n\r\n\r\n";
    add("too many parts", many, 400, QByteArray("a=;").repeated(MultipartParser::MaxParts));
}

void HttpFormsTest::multipart() {
    QFETCH(QByteArray, body);
    QFETCH(int, status);
    QFETCH(QByteArray, parts);
    for (const int piece : {1, 2, 3, 7, 64, 100'000}) {
        Recorder recorder;
        MultipartParser parser("b", &recorder);
        int result = 0;
        for (int at = 0; at < body.size() && result == 0; at += piece)
            result = parser.feed(body.constData() + at, std::min(piece, body.size() - at));
        QCOMPARE(result, status);
        QCOMPARE(recorder.text, parts);
        QCOMPARE(parser.isComplete(), status == 0);
    }
}

void HttpFormsTest::boundaries_data() {
    QTest::addColumn<QByteArray>("type");
    QTest::addColumn<QByteArray>("boundary");
    QTest::newRow("plain") << QByteArray("multipart/form-data; boundary=abc") << QByteArray("abc");
    QTest::newRow("quoted") << QByteArray("multipart/form-data; charset=x; boundary=\"a b;c\"")
                            << QByteArray("a b;c");
    QTest::newRow("upper case") << QByteArray("multipart/form-data;BOUNDARY=x ; y=z") << QByteArray("x");
    QTest::newRow("none") << QByteArray("multipart/form-data") << QByteArray();
    QTest::newRow("empty") << QByteArray("multipart/form-data; boundary=") << QByteArray();
    QTest::newRow("unended") << QByteArray("multipart/form-data; boundary=\"abc") << QByteArray("abc");
    QTest::newRow("no value") << QByteArray("multipart/form-data; boundary") << QByteArray();
    QTest::newRow("too long") << "multipart/form-data; boundary=" + QByteArray(71, 'x') << QByteArray();
}

void HttpFormsTest::boundaries() {
    QFETCH(QByteArray, type);
    QFETCH(QByteArray, boundary);
    QCOMPARE(MultipartParser::boundaryOf(type), boundary);
}

void HttpFormsTest::templates_data() {
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("filled");
    QTest::newRow("variable") << "<{a}{a}>{b}"
                              << "<11>{b}";
    QTest::newRow("condition") << "{if yes}y{else yes}n{end yes}{if no}y{else no}n{end no}"
                               << "yn";
    QTest::newRow("condition without other") << "[{if no}y{end no}]{if yes}{a}{end yes}"
                                             << "[]1";
    QTest::newRow("loop") << "{loop l}({l.x}){else l}none{end l}"
                          << "(p)(q)";
    QTest::newRow("empty loop") << "{loop e}x{else e}none{end e}"
                                << "none";
    QTest::newRow("unended") << "{if yes}y"
                             << "{if yes}y";
}

void HttpFormsTest::templates() {
    QFETCH(QString, text);
    QFETCH(QString, filled);
    Template page(text);
    page.setVariable("a", "1");
    page.setCondition("yes", true);
    page.setCondition("no", false);
    page.loop("l", {{{"x", "p"}}, {{"x", "q"}}});
    page.loop("e", {});
    QCOMPARE(page.text(), filled);
}

void HttpFormsTest::templatesAreFoundByName() {
    QTemporaryDir directory;
    QSettings settings(directory.filePath("config.ini"), QSettings::IniFormat);
    settings.setValue("path", "pages");
    settings.setValue("suffix", ".html");
    QDir(directory.path()).mkdir("pages");
    for (const char* name : {"pages/page.html", "outside.html"}) {
        QFile file(directory.filePath(name));
        QVERIFY(file.open(QIODevice::WriteOnly) && file.write("\xe4\xbd\xa0") == 3);
    }
    const TemplateLoader loader(&settings);
    QCOMPARE(loader.load("page").text(), QString::fromUtf8("\xe4\xbd\xa0"));
    QVERIFY(loader.load("nowhere").isEmpty());
    QVERIFY(loader.load("../outside").isEmpty());
}

int main(int argc, char** argv) {
    return runTest<HttpFormsTest>(argc, argv);
}
#include "http_forms_test.moc"
