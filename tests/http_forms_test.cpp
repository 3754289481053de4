#include "http/multipartparser.h"
#include "http/templateloader.h"
#include "support/table.h"
#include "support/testmain.h"

#include <QTemporaryDir>

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

/// Multipart bodies in every division, and templates.
class HttpFormsTest : public QObject {
    Q_OBJECT
private slots:
    void multipart_data() {
        const Table<QByteArray, int, QByteArray> add{"body", "status", "parts"};
        const QByteArray field = "Content-Disposition: form-data; name=";
        add("field", "--b\r\n" + field + "\"a\"\r\n\r\n1\r\n--b--\r\n", 0, "a=1;");
        add("preamble and epilogue", "x\r\n--b\r\n" + field + "a\r\n\r\n1\r\n--b--\r\nrest\r\n--b", 0,
            "a=1;");
        add("two fields, one empty",
            "--b\r\n" + field + "\"a\"\r\n\r\n\r\n--b\r\n" + field + "\"c\"\r\n\r\n2\r\n--b--", 0, "a=;c=2;");
        add("file",
            "--b\r\n" + field + "\"f\"; filename=\"x;y.mp3\"\r\nContent-Type: audio/mpeg\r\n\r\nID3\r\n--b--",
            0, "f<x;y.mp3>=ID3;");
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

    void multipart() {
        QFETCH(QByteArray, body);
        QFETCH(int, status);
        for (const int piece : {1, 2, 3, 7, 64, 100'000}) {
            Recorder recorder;
            MultipartParser parser("b", &recorder);
            int result = 0;
            for (int at = 0; at < body.size() && result == 0; at += piece)
                result = parser.feed(body.constData() + at, std::min(piece, body.size() - at));
            QCOMPARE(result, status);
            QTEST(recorder.text, "parts");
            QCOMPARE(parser.isComplete(), status == 0);
        }
    }

    void boundaries_data() {
        const Table<QByteArray, QByteArray> row{"type", "boundary"};
        row("plain", "multipart/form-data; boundary=abc", "abc");
        row("quoted", "multipart/form-data; charset=x; boundary=\"a b;c\"", "a b;c");
        row("upper case", "multipart/form-data;BOUNDARY=x ; y=z", "x");
        row("none", "multipart/form-data", {});
        row("empty", "multipart/form-data; boundary=", {});
        row("unended", "multipart/form-data; boundary=\"abc", "abc");
        row("no value", "multipart/form-data; boundary", {});
        row("too long", "multipart/form-data; boundary=" + QByteArray(71, 'x'), {});
    }

    void boundaries() {
        QFETCH(QByteArray, type);
        QTEST(MultipartParser::boundaryOf(type), "boundary");
    }

    void templates_data() {
        const Table<QString, QString> row{"text", "filled"};
        row("variable", "<{a}{a}>{b}", "<11>{b}");
        row("condition", "{if yes}y{else yes}n{end yes}{if no}y{else no}n{end no}", "yn");
        row("condition without other", "[{if no}y{end no}]{if yes}{a}{end yes}", "[]1");
        row("loop", "{loop l}({l.x}){else l}none{end l}", "(p)(q)");
        row("empty loop", "{loop e}x{else e}none{end e}", "none");
        row("unended", "{if yes}y", "{if yes}y");
    }

    void templates() {
        QFETCH(QString, text);
        Template page(text);
        page.setVariable("a", "1");
        page.setCondition("yes", true);
        page.setCondition("no", false);
        page.loop("l", {{{"x", "p"}}, {{"x", "q"}}});
        page.loop("e", {});
        QTEST(page.text(), "filled");
    }

    void templatesAreFoundByName() {
        QTemporaryDir directory;
        QDir(directory.path()).mkdir("pages");
        for (const char* name : {"pages/page.html", "outside.html"}) {
            QFile file(directory.filePath(name));
            QVERIFY(file.open(QIODevice::WriteOnly) && file.write("\xe4\xbd\xa0") == 3);
        }
        const TemplateLoader loader({directory.filePath("pages"), ".html", "UTF-8"});
        QCOMPARE(loader.load("page").text(), QString::fromUtf8("\xe4\xbd\xa0"));
        QVERIFY(loader.load("nowhere").isEmpty());
        QVERIFY(loader.load("../outside").isEmpty());
    }
};

int main(int argc, char** argv) {
    return runTest<HttpFormsTest>(argc, argv);
}
#include "http_forms_test.moc"
