#include "device/commandrow.h"
#include "device/dispatcheranswers.h"
#include "device/saobj.h"
#include "device/severinit.h"

#include <algorithm>
#include <QDebug>
#include <QHostAddress>
#include <vector>

// What each command word means: the table at the end, and above it how the arguments are read.

namespace {

// Keys, with linkage so that they can stand in the table.
constexpr char Vol[] = "vol";
constexpr char DevKs[] = "dev_ks";
constexpr char TaskId[] = "taskid";
constexpr char OriginUrl[] = "originurl";
constexpr char TtString[] = "ttstring";
constexpr char Path[] = "Path";
constexpr char Paths[] = "paths";

constexpr char VolumeError[] = "sn or vol error1";
constexpr char BadArgument[] = "Data_error_7";

Plan bad(const char* key) {
    return Plan::refused(BadArgument, QStringLiteral("\"%1\" is missing or wrong").arg(QLatin1String(key)));
}

bool isByte(const std::optional<int>& value) {
    return value && *value >= 0 && *value <= 255;
}

// --- no argument, one integer, one text ---

template<int (SAobj::*Method)()>
Plan plain(const Arguments&) {
    return [](SAobj& session) {
        return (session.*Method)();
    };
}

template<int (SAobj::*Method)(int), const char* Key>
Plan withInteger(const Arguments& arguments) {
    const auto value = arguments.integer(Key);
    if (!value)
        return bad(Key);
    return [v = *value](SAobj& session) {
        return (session.*Method)(v);
    };
}

template<int (SAobj::*Method)(const QString&), const char* Key>
Plan withText(const Arguments& arguments) {
    const auto value = arguments.filledText(Key);
    if (!value)
        return bad(Key);
    return [text = *value](SAobj& session) {
        return (session.*Method)(text);
    };
}

Plan rawTest(const Arguments& arguments) {
    const auto data = arguments.filledText("Data");
    if (!data)
        return bad("Data");
    return [bytes = data->toUtf8()](SAobj& session) {
        return session.QT_test(bytes);
    };
}

Plan commandLine(const Arguments& arguments) {
    const auto line = arguments.filledText("cmdline");
    if (!line)
        return bad("cmdline");
    return [bytes = line->toUtf8()](SAobj& session) {
        return session.addMp3list(bytes);
    };
}

// --- volume, microphone, address ---

Plan volumeError() {
    return Plan::refused(VolumeError, QStringLiteral("\"vol\" is missing or out of range"));
}

Plan volumeLevel(const Arguments& arguments) {
    const auto level = arguments.integer(Vol);
    if (!level)
        return volumeError();
    const int code = Severinit::to_vol(isByte(level) ? static_cast<unsigned char>(*level) : 0);
    return [code](SAobj& session) {
        return session.set_vol(code);
    };
}

Plan volumeByte(const Arguments& arguments) {
    const auto vol = arguments.integer(Vol);
    const auto value = vol ? vol : arguments.integer("vols");
    if (!isByte(value))
        return volumeError();
    return [v = *value](SAobj& session) {
        return session.set_vol_V(v);
    };
}

Plan microphone(const Arguments& arguments) {
    const auto e = arguments.integer("mic_e");
    const auto d = arguments.integer("mic_d");
    if (!isByte(e) || !isByte(d))
        return bad(isByte(e) ? "mic_d" : "mic_e");
    return [e = *e, d = *d](SAobj& session) {
        return session.set_Mic_V(e, d);
    };
}

Plan newAddress(const Arguments& arguments) {
    const QString ip = arguments.text("ip").value_or(QString());
    const int port = arguments.integer("port").value_or(0);
    const bool isAddress =
        ip.count(QLatin1Char('.')) == 3 && QHostAddress(ip).protocol() == QAbstractSocket::IPv4Protocol;
    if (!isAddress || port < 1 || port > 65535)
        return Plan::refused("out_of_range90008", QStringLiteral("\"ip\" or \"port\" is wrong"));
    return [ip, port](SAobj& session) {
        return session.push_ipinfo(ip, port);
    };
}

// --- play lists ---

/// The bytes of a list command: entries joined by line feeds. Empty when there are none. The log gets
/// no entry itself: a line for a speaker's shell may hold a password.
QByteArray joined(const QStringList& files) {
    const QByteArray list = files.join(QLatin1Char('\n')).toUtf8();
    qDebug() << "strline:" << files.size() << "entries" << list.size() << "bytes";
    return list;
}

Plan listCall(const QStringList& files, int (SAobj::*method)(const QByteArray&)) {
    const QByteArray list = joined(files);
    if (list.isEmpty())
        return Plan::refused("ufile_error",
                             QStringLiteral("\"filelist\" is missing, empty or not all texts"));
    if (list.size() > Arguments::MaxBytes)
        return Plan::refused("write_erro",
                             QStringLiteral("\"filelist\" exceeds %1 bytes").arg(Arguments::MaxBytes));
    return [list, method](SAobj& session) {
        return (session.*method)(list);
    };
}

template<int (SAobj::*Method)(const QByteArray&)>
Plan withList(const Arguments& arguments) {
    return listCall(arguments.files(), Method);
}

QStringList mapped(QStringList files, const std::function<QString(const QString&)>& change) {
    std::transform(files.begin(), files.end(), files.begin(), change);
    return files;
}

constexpr char Gpio132On[] = "@url && gpio132_on   && .mp3";
constexpr char Gpio133On[] = "@url && gpio133_on   && .mp3";
constexpr char Gpio132Off[] = "@url && gpio132_off   && .mp3";
constexpr char Gpio133Off[] = "@url && gpio133_off   && .mp3";

template<const char* Pattern>
Plan gpioList(const Arguments& arguments) {
    const auto line = [](const QString& file) {
        return QString(QLatin1String(Pattern)).replace(QLatin1String("@url"), file);
    };
    return listCall(mapped(arguments.files(), line), &SAobj::addMp3list);
}

bool isStream(const QString& file) {
    return file.startsWith(QLatin1String("http"));
}

/// Each line is a command of its own.
int sendEach(SAobj& session, const QList<QByteArray>& lines, int (SAobj::*method)(const QByteArray&)) {
    int written = 0;
    for (const QByteArray& line : lines) {
        written = (session.*method)(line);
        if (written <= 0)
            break;
    }
    return written;
}

QList<QByteArray> lines(const QStringList& files) {
    QList<QByteArray> found;
    for (const QString& file : files)
        found << file.toUtf8();
    return found;
}

/// Streams go one by one, files as one list after them.
Plan playStreams(const Arguments& arguments) {
    QStringList files = arguments.files();
    Plan whole = listCall(files, &SAobj::addMp3list2);
    if (!whole.call)
        return whole;
    const auto firstFile = std::stable_partition(files.begin(), files.end(), isStream);
    const QStringList streamed(files.begin(), firstFile);
    const QByteArray list = QStringList(firstFile, files.end()).join(QLatin1Char('\n')).toUtf8();
    return [streams = lines(streamed), list](SAobj& session) {
        const int written = streams.isEmpty() ? 1 : sendEach(session, streams, &SAobj::addStreamlistback);
        return written <= 0 || list.isEmpty() ? written : session.addMp3list2(list);
    };
}

Plan playCommands(const Arguments& arguments) {
    const QStringList files = arguments.files();
    Plan whole = listCall(files, &SAobj::addStreamlistbackascmd);
    if (!whole.call)
        return whole;
    return [list = lines(files)](SAobj& session) {
        return sendEach(session, list, &SAobj::addStreamlistbackascmd);
    };
}

Plan playUnbuffered(const Arguments& arguments) {
    const auto option = [](const QString& file) {
        return isStream(file) ? file + QStringLiteral(" --no-buffer") : file;
    };
    return listCall(mapped(arguments.files(), option), &SAobj::addMp3list2);
}

// --- tasks that speakers keep ---

struct TaskArguments {
    int id, time;
    QString weeks;
    QByteArray list;
};

/// The task that the request describes; otherwise the refusal in `refused`.
std::optional<TaskArguments> task(const Arguments& arguments, std::optional<Plan>& refused) {
    const auto id = arguments.integer(TaskId);
    const auto time = arguments.integer("tasktime");
    const auto weeks = arguments.text("weeks");
    const Plan list = listCall(arguments.files(), &SAobj::addMp3list);
    if (!id || !time || !weeks)
        refused = bad(!id ? TaskId : !time ? "tasktime" : "weeks");
    else if (!list.call)
        refused = list;
    else
        return TaskArguments{*id, *time, *weeks, joined(arguments.files())};
    return std::nullopt;
}

Plan addTask(const Arguments& arguments) {
    std::optional<Plan> refused;
    const auto t = task(arguments, refused);
    if (!t)
        return *refused;
    return [t = *t](SAobj& session) {
        return session.add_unlineTasklist(t.weeks, t.id, t.time, t.list);
    };
}

Plan addDatedTask(const Arguments& arguments) {
    std::optional<Plan> refused;
    const auto t = task(arguments, refused);
    if (!t)
        return *refused;
    QList<int> more;
    for (const char* const key : {"startdate", "enddate", "kind", "clen"}) {
        const auto value = arguments.integer(key);
        if (!value)
            return bad(key);
        more << *value;
    }
    return [t = *t, more](SAobj& session) {
        return session.add_unlineTasklistGS(t.weeks, t.id, t.time, t.list, more[0], more[1], more[2],
                                            more[3]);
    };
}

// --- files for speakers ---

template<const char* PathKey>
Plan transferFile(const Arguments& arguments) {
    const auto url = arguments.filledText("url");
    const auto path = arguments.filledText(PathKey);
    if (!url || !path)
        return bad(url ? PathKey : "url");
    return [url = *url, md5 = arguments.text("md5").value_or(QString()), path = *path](SAobj& session) {
        return session._AATS(url, md5, path);
    };
}

// --- result words other than the usual ones ---

constexpr ResultWords Usual;
constexpr ResultWords Well{"WELL"};
constexpr ResultWords WellStreams{"WELL", "unline", "out_of_range", "unline", "write_erro"};
constexpr ResultWords Volume{"success", VolumeError, VolumeError, VolumeError, VolumeError};
constexpr ResultWords Debug{"success", "unline", "out_of_range2"};
constexpr ResultWords Everybody{"success90008", "unline90008", "out_of_range90008", "unline90008",
                                "unline90008"};
constexpr ResultWords AlwaysDone{"success90008", nullptr, nullptr, nullptr, nullptr};
constexpr ResultWords AlwaysDoneGpio{"success90718", nullptr, nullptr, nullptr, nullptr};
constexpr ResultWords Gpio{"success90708", "unline90708", "out_of_range90008", "unline90718", "unline90718"};

CommandRow play(CommandRow row) {
    row.play = PlayKind::Play;
    return row;
}

CommandRow stop(CommandRow row) {
    row.play = PlayKind::Stop;
    return row;
}

} // namespace

const std::vector<CommandRow>& commandTable() {
    using T = Targets;
    static const std::vector<CommandRow> table{
        {"LIST", 1001, T::All, nullptr, Usual, answers::listOfChanges, false, answers::appendSession},
        {"GETALLINFO", 0, T::All, nullptr, Usual, answers::listOfChanges, false, answers::appendSession},
        {"VOL", 1002, T::One, volumeLevel, Usual},
        {"VOL_V", 1003, T::One, volumeByte, Volume},
        {"VOL_S", 1009, T::List, volumeByte, Usual, nullptr, true},
        {"NEWIP", 0, T::List, newAddress, Usual},
        {"MIC_DE", 1007, T::One, microphone, Usual},
        {"DEBUG", 1008, T::One, withInteger<&SAobj::set_debug_ks, DevKs>, Debug},
        {"DEBUGALL", 0, T::All, withInteger<&SAobj::set_debug_ks, DevKs>, Everybody},
        {"FUCKALL", 0, T::All, commandLine, AlwaysDone},
        {"GPIOALL", 0, T::All, withInteger<&SAobj::set_GPIO_ks, DevKs>, AlwaysDoneGpio},
        {"GPIO", 0, T::One, withInteger<&SAobj::set_GPIO_ks, DevKs>, Gpio},
        play({"PLAYTTS", 0, T::List, withText<&SAobj::PLAY_TTS, TtString>, Usual}),
        {"TEST", 0, T::List, rawTest, Usual},
        play({"PLAYOFF", 0, T::Each, withList<&SAobj::addMp3list>, Well}),
        play({"PLAYOFF_G", 0, T::Each, withList<&SAobj::addMp3list>, Well}),
        {"GPIO_132", 0, T::List, gpioList<Gpio132On>, Well},
        {"GPIO_133", 0, T::List, gpioList<Gpio133On>, Well},
        {"GPIOS_132", 0, T::List, gpioList<Gpio132Off>, Well},
        {"GPIOS_133", 0, T::List, gpioList<Gpio133Off>, Well},
        play({"PLAYAS", 0, T::Each, playStreams, WellStreams}),
        {"PLAYASCMD", 0, T::Each, playCommands, Usual},
        play({"PLAYA7", 0, T::Each, playUnbuffered, Usual}),
        stop({"FORCESTOP7", 0, T::Each, plain<&SAobj::stopcurl2>, Usual}),
        play({"PLAYOFF_START", 0, T::Each, withList<&SAobj::Play_Mp3_url>, Usual}),
        play({"PLAYOFF_START_G", 0, T::Each, withList<&SAobj::Play_Mp3_url>, Usual}),
        {"PURGEFILE", 0, T::Each, withList<&SAobj::NewMp3list_start>, Usual},
        {"PURGEFILE_G", 0, T::Each, withList<&SAobj::NewMp3list_start>, Usual},
        {"PRECACHE", 0, T::Each, withList<&SAobj::exec_Mp3_url>, Usual},
        {"PRECACHE_G", 0, T::Each, withList<&SAobj::exec_Mp3_url>, Usual},
        stop({"FORCESTOP", 0, T::Each, plain<&SAobj::stopcurl>, Usual}),
        stop({"FORCESTOP_G", 0, T::Each, plain<&SAobj::stopcurl>, Usual}),
        {"MDIFYCENTER", 0, T::Each, withText<&SAobj::cdn_url, OriginUrl>, Usual},
        {"MDIFYCENTER_G", 0, T::Each, withText<&SAobj::cdn_url, OriginUrl>, Usual},
        {"MDIFYCENTERS", 0, T::Each, withText<&SAobj::cdn_url2, OriginUrl>, Usual},
        {"ListGroup", 0, T::None, nullptr, Usual, answers::group},
        {"LIST_TASK_G", 0, T::Each, plain<&SAobj::Get_unlinetasklist>, Usual},
        {"ADD_TASK_G", 0, T::Each, addTask, Usual},
        {"ADD_TASK_GS", 0, T::Each, addDatedTask, Usual},
        {"DEL_TASK_G", 0, T::Each, withInteger<&SAobj::remove_unlineTasklist, TaskId>, Usual},
        {"STOP_TASK_G", 0, T::Each, withInteger<&SAobj::stop_unlineTasklist, TaskId>, Usual},
        {"TEST_TASK_G", 0, T::Each, withInteger<&SAobj::Test_unlineTasklist, TaskId>, Usual},
        {"UPDATETIME_G", 0, T::Each, plain<&SAobj::update_time>, Usual},
        {"REBOOT_G", 0, T::Each, plain<&SAobj::_AR>, Usual},
        {"CLEARTASK_G", 0, T::Each, plain<&SAobj::_AAT>, Usual},
        {"STOPALL_TASK_G", 0, T::Each, plain<&SAobj::_AAT_ALL>, Usual},
        {"FILE_G", 0, T::Each, transferFile<Path>, Usual},
        {"FILES_G", 0, T::Each, transferFile<Paths>, Usual},
        {"useing_enable", 0, T::List, nullptr, Usual, nullptr, false, nullptr, answers::enable},
        {"useing_disable", 0, T::List, nullptr, Usual, nullptr, false, nullptr, answers::disable},
        {"ADD_FDEV", 0, T::None, nullptr, Usual, answers::addRegistered},
        {"EDT_FDEV", 0, T::None, nullptr, Usual, answers::editRegistered},
        {"DEL_FDEV", 0, T::None, nullptr, Usual, answers::deleteRegistered},
    };
    return table;
}
