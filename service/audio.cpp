#include "service/audio.h"

#include "service/program.h"

#include <memory>
#include <mpg123.h>
#include <QCryptographicHash>
#include <QDebug>
#include <QElapsedTimer>
#include <QFile>
#include <QtEndian>

namespace audio {
namespace {

constexpr int HeadBytes = 64;
constexpr int LongestSource = 7200;                                      // s; of what ffmpeg decodes
constexpr qint64 LargestDecoded = qint64(LongestSource) * 44100 * 2 * 2; // bytes; never on the disk
constexpr qint64 LargestResult = 512 * 1024 * 1024;                      // bytes; nine hours at 128 kbit/s

using Mpg = std::unique_ptr<mpg123_handle, decltype(&mpg123_delete)>;

Mpg openMpg(const QString& path) {
    Mpg handle(mpg123_new(nullptr, nullptr), &mpg123_delete);
    if (!handle)
        return handle;
    mpg123_param(handle.get(), MPG123_ADD_FLAGS, MPG123_QUIET, 0.0);
    // A file in which no frame turns up within this many bytes is not searched to its end.
    mpg123_param(handle.get(), MPG123_RESYNC_LIMIT, 65536, 0.0);
    if (mpg123_open(handle.get(), QFile::encodeName(path).constData()) != MPG123_OK) {
        qWarning().noquote() << "open_mpg" << path << mpg123_strerror(handle.get());
        handle.reset();
    }
    return handle;
}

/// Whole seconds, rounded up; 0 when there is nothing to play.
int secondsOf(mpg123_handle* handle) {
    long rate = 0;
    int channels = 0;
    int encoding = 0;
    if (mpg123_getformat(handle, &rate, &channels, &encoding) != MPG123_OK || rate <= 0)
        return 0;
    const off_t samples = mpg123_length(handle);
    return samples > 0 ? static_cast<int>((samples + rate - 1) / rate) : 0;
}

QString checksumOf(const QString& path) {
    QFile file(path);
    QCryptographicHash hash(QCryptographicHash::Md5);
    if (!file.open(QIODevice::ReadOnly) || !hash.addData(&file))
        return {};
    return QString::fromLatin1(hash.result().toHex());
}

QByteArray headOf(const QString& path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.read(HeadBytes) : QByteArray();
}

bool isMpegLayer3(const QByteArray& head) {
    if (head.size() < 4 || static_cast<uchar>(head[0]) != 0xFF)
        return false;
    const uint second = static_cast<uchar>(head[1]);
    return (second & 0xE0U) == 0xE0U && (second & 0x06U) == 0x02U && (second & 0x18U) != 0x08U;
}

/// The WAV files that lame reads itself: PCM, IEEE float or extensible, of usual rates and channels.
bool isPlainWav(const QByteArray& head) {
    if (head.size() < 28 || head.mid(12, 4) != "fmt ")
        return false;
    const auto tag = qFromLittleEndian<quint16>(head.constData() + 20);
    const auto channels = qFromLittleEndian<quint16>(head.constData() + 22);
    const auto rate = qFromLittleEndian<quint32>(head.constData() + 24);
    return (tag == 1 || tag == 3 || tag == 0xFFFE) && channels <= 2 && rate >= 8000 && rate <= 48000;
}

/// Demuxer that ffmpeg is held to, so that the bytes can't talk it into another one.
const char* demuxer(Format format) {
    switch (format) {
    case Format::Wav:
        return "wav";
    case Format::Aiff:
        return "aiff";
    case Format::Mpeg4:
        return "mov";
    case Format::Amr:
        return "amr";
    case Format::Ogg:
        return "ogg";
    case Format::Flac:
        return "flac";
    case Format::Aac:
        return "aac";
    default:
        return nullptr;
    }
}

/// A program that ran and refused its input says that the input is no good.
Outcome outcomeOf(const ProgramResult& result) {
    switch (result.end) {
    case ProgramResult::End::Done:
        return Outcome::Done;
    case ProgramResult::End::Failed:
        return Outcome::Undecodable;
    case ProgramResult::End::Stopped:
        break;
    }
    return Outcome::ProgramFailed;
}

/// Speakers are told nothing by more channels or a higher rate: held to these, a source costs no more than
/// its length, whatever its header says.
ProgramRun ffmpeg(Format format, const QString& source, const QString& directory) {
    ProgramRun run;
    run.program = QStringLiteral("ffmpeg");
    run.directory = directory;
    run.arguments = QStringList{QStringLiteral("-nostdin"),
                                QStringLiteral("-v"),
                                QStringLiteral("error"),
                                QStringLiteral("-protocol_whitelist"),
                                QStringLiteral("file,pipe"),
                                QStringLiteral("-f"),
                                QString::fromLatin1(demuxer(format)),
                                QStringLiteral("-i"),
                                source,
                                QStringLiteral("-map"),
                                QStringLiteral("0:a:0"),
                                QStringLiteral("-t"),
                                QString::number(LongestSource),
                                QStringLiteral("-af"),
                                QStringLiteral("aformat=sample_rates=44100:channel_layouts=stereo|mono"),
                                QStringLiteral("-c:a"),
                                QStringLiteral("pcm_s16le"),
                                QStringLiteral("-fs"),
                                QString::number(LargestDecoded),
                                QStringLiteral("-f"),
                                QStringLiteral("wav"),
                                QStringLiteral("pipe:1")};
    return run;
}

ProgramRun lame(const QString& source, const QString& target, const QString& directory, int bitrate) {
    ProgramRun run;
    run.program = QStringLiteral("lame");
    run.directory = directory;
    run.largestFile = LargestResult;
    run.arguments = QStringList{QStringLiteral("-S"),
                                source,
                                QStringLiteral("--resample"),
                                QStringLiteral("44.1"),
                                QStringLiteral("--pad-id3v2"),
                                QStringLiteral("-b"),
                                QString::number(bitrate),
                                QStringLiteral("-o"),
                                target};
    return run;
}

/// False when the file holds no frame, or clearly less than its own header promises: it was cut off
/// on its way here, and a cut announcement must not be taken for a whole one.
bool isWholeMp3(const QString& path) {
    const Mpg handle = openMpg(path);
    if (!handle)
        return false;
    const int promised = secondsOf(handle.get());
    mpg123_scan(handle.get());
    const int found = secondsOf(handle.get());
    return found > 0 && promised <= found + 1;
}

/// Formats that lame reads itself; the others are decoded for it.
bool isDirect(Format format, const QByteArray& head) {
    return format == Format::Mp3 || (format == Format::Wav && isPlainWav(head));
}

Outcome encodeNow(const QString& source, const QString& target, const QString& directory, int bitrate) {
    const QByteArray head = headOf(source);
    const Format format = sniff(head);
    if (format == Format::Unknown || (format == Format::Mp3 && !isWholeMp3(source)))
        return Outcome::Undecodable;
    if (!isDirect(format, head))
        return outcomeOf(runPiped(ffmpeg(format, source, directory),
                                  lame(QStringLiteral("-"), target, directory, bitrate)));
    // lame takes the bytes for what the name says.
    const QString input =
        directory + (format == Format::Mp3 ? QStringLiteral("/tmp.mp3") : QStringLiteral("/tmp.wav"));
    if (!QFile::rename(source, input))
        return Outcome::ProgramFailed;
    return outcomeOf(runProgram(lame(input, target, directory, bitrate)));
}

} // namespace

Format sniff(const QByteArray& head) {
    const auto at = [&head](int offset, const char* mark) {
        return head.mid(offset).startsWith(mark);
    };
    if (at(0, "RIFF") && at(8, "WAVE"))
        return Format::Wav;
    if (at(0, "FORM") && (at(8, "AIFF") || at(8, "AIFC")))
        return Format::Aiff;
    if (at(0, "ID3") || isMpegLayer3(head))
        return Format::Mp3;
    if (at(4, "ftyp"))
        return Format::Mpeg4;
    if (at(0, "#!AMR"))
        return Format::Amr;
    if (at(0, "OggS"))
        return Format::Ogg;
    if (at(0, "fLaC"))
        return Format::Flac;
    if (head.size() >= 7 && static_cast<uchar>(head[0]) == 0xFF &&
        (static_cast<uchar>(head[1]) & 0xF6U) == 0xF0U)
        return Format::Aac;
    return Format::Unknown;
}

std::optional<Measure> measure(const QString& path) {
    const Mpg handle = openMpg(path);
    if (!handle || mpg123_scan(handle.get()) != MPG123_OK)
        return std::nullopt;
    const int seconds = secondsOf(handle.get());
    if (seconds <= 0)
        return std::nullopt;
    return Measure{seconds, QFile(path).size(), checksumOf(path)};
}

int quickLength(const QString& path) {
    const Mpg handle = openMpg(path);
    return handle ? secondsOf(handle.get()) : 0;
}

Outcome encode(const QString& source, const QString& target, const QString& directory, int bitrate) {
    QElapsedTimer clock;
    clock.start();
    qInfo().noquote() << "encode start" << target << "from" << QFile(source).size() << "bytes";
    const Outcome outcome = encodeNow(source, target, directory, bitrate);
    qInfo().noquote() << (outcome == Outcome::Done ? "encode done" : "encode failed") << target << "after"
                      << clock.elapsed() << "ms";
    return outcome;
}

QString pictureSuffix(const QByteArray& head) {
    if (head.startsWith("\xFF\xD8\xFF"))
        return QStringLiteral("jpg");
    if (head.startsWith("\x89PNG\r\n\x1A\n"))
        return QStringLiteral("png");
    if (head.startsWith("RIFF") && head.mid(8, 4) == "WEBP")
        return QStringLiteral("webp");
    return {};
}

} // namespace audio
