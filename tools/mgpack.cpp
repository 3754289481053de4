// Makes alarm files for the service from MP3 files, and MP3 files from alarm files.

#include "tools/mgpackager.h"

#include <cstdio>
#include <QCommandLineParser>
#include <QCoreApplication>
#include <QFile>
#include <QSaveFile>

namespace {

/// Above any alarm; what is larger is given by mistake.
constexpr qint64 MaxFileBytes = 512 * 1024 * 1024;

int fail(const QString& file, const QString& why) {
    std::fprintf(stderr, "mgpack: %s: %s\n", qPrintable(file), qPrintable(why));
    return 1;
}

int convert(const QString& from, const QString& to, bool unpacks, int ms) {
    QFile source(from);
    if (!source.open(QIODevice::ReadOnly))
        return fail(from, source.errorString());
    if (source.size() > MaxFileBytes)
        return fail(from, QStringLiteral("larger than %1 bytes").arg(MaxFileBytes));
    const QByteArray bytes = source.readAll();
    const auto result = unpacks ? mgpackager::unpack(bytes) : mgpackager::pack(bytes, ms);
    if (result.bytes.isEmpty())
        return fail(from, result.error);
    QSaveFile target(to);
    if (!target.open(QIODevice::WriteOnly) || target.write(result.bytes) < 0 || !target.commit())
        return fail(to, target.errorString());
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    QCoreApplication application(argc, argv);
    QCoreApplication::setApplicationVersion(QStringLiteral(SPEAKERD_VERSION));
    QCommandLineParser parser;
    parser.setApplicationDescription(
        QStringLiteral("Packs an MP3 file into an alarm file (MG), or unpacks one."));
    parser.addHelpOption();
    parser.addVersionOption();
    const QCommandLineOption unpack(QStringLiteral("unpack"),
                                    QStringLiteral("IN is an MG file, OUT an MP3 file."));
    const QCommandLineOption interval(QStringLiteral("ms"),
                                      QStringLiteral("Time between two packets, 80 to 1000 ms."),
                                      QStringLiteral("MS"), QStringLiteral("100"));
    parser.addOptions({unpack, interval});
    parser.addPositionalArgument(QStringLiteral("IN"), QStringLiteral("File to read."));
    parser.addPositionalArgument(QStringLiteral("OUT"), QStringLiteral("File to write."));
    parser.process(application);
    const QStringList files = parser.positionalArguments();
    if (files.size() != 2)
        parser.showHelp(1);
    return convert(files.at(0), files.at(1), parser.isSet(unpack), parser.value(interval).toInt());
}
