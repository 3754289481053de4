#pragma once

#include <array>
#include <QByteArray>

/// The words of the device protocol (docs/device-protocol.md), for both of its ends. Pure tables: a command
/// or a report is its bytes, without a length or an end mark.
namespace words {

/// What a command asks of the speaker.
enum class Op {
    DeviceInfo,
    VolumeCode,
    Volume,
    Microphone,
    Debug,
    Gpio,
    ServerAddress,
    DataConnect,
    Time,
    ContentServer,
    PlayList,
    Preload,
    Purge,
    PlayUrl,
    Stop,
    Stream,
    TaskAdd,
    TaskRemove,
    TaskStop,
    TaskList,
    Reboot,
    TasksClear,
    TasksStop,
    FileTransfer,
    Speak,
    AlarmState,
    Unknown ///< no command, or more than one that were read together
};

inline constexpr int Digits = -1; ///< argument: a run of decimal digits
inline constexpr int Text = -2;   ///< argument: whatever there is

struct Word {
    const char* text;
    Op op;
    int argument; ///< bytes, or one of the kinds above
};

// --- commands ---
inline constexpr Word AlarmBegun{"GET_BAOJINGEE", Op::AlarmState, 0};
inline constexpr Word AlarmOver{"GET_BAOJINGGE", Op::AlarmState, 0};
inline constexpr Word AlarmAny{"GET_BAOJING", Op::AlarmState, 0};
inline constexpr Word DeviceInfo{"JXXXXX", Op::DeviceInfo, 0};
inline constexpr Word VolumeCode{"SETVOL", Op::VolumeCode, 1};
inline constexpr Word Time{"AM", Op::Time, 6}; ///< year - 1970, month, day, hour, minute, second
inline constexpr Word ContentServer{"A0", Op::ContentServer, Text};
inline constexpr Word ContentServer2{"A&", Op::ContentServer, Text};
inline constexpr Word PlayList{"A1", Op::PlayList, Text};
inline constexpr Word Preload{"A2", Op::Preload, Text};
inline constexpr Word Purge{"A3", Op::Purge, Text};
inline constexpr Word PlayUrl{"A4", Op::PlayUrl, Text};
inline constexpr Word Stop{"A5", Op::Stop, 0};
inline constexpr Word PlayList2{"A6", Op::PlayList, Text};
inline constexpr Word Stop2{"A7", Op::Stop, 0};
inline constexpr Word Stream{"AS", Op::Stream, Text};   ///< one entry; only digits: test of a stored task
inline constexpr Word TaskAdd{"AT", Op::TaskAdd, Text}; ///< record
inline constexpr Word TaskRemove{"AD", Op::TaskRemove, Digits};
inline constexpr Word TaskStop{"AE", Op::TaskStop, Digits};
inline constexpr Word TaskList{"AL", Op::TaskList, 0};
inline constexpr Word Reboot{"AR", Op::Reboot, 0};
inline constexpr Word TasksClear{"A@", Op::TasksClear, 0};
inline constexpr Word TasksStop{"AF", Op::TasksStop, 0};
inline constexpr Word FileTransfer{"A#", Op::FileTransfer, Text}; ///< three texts joined by "`"
inline constexpr Word Volume{"V", Op::Volume, 1};
inline constexpr Word Microphone{"M", Op::Microphone, 2};       ///< echo, gain
inline constexpr Word Debug{"I", Op::Debug, 1};                 ///< "K" or "S"
inline constexpr Word Gpio{"G", Op::Gpio, 2};                   ///< "01" or "00"
inline constexpr Word ServerAddress{"Y", Op::ServerAddress, 6}; ///< IPv4 address, port (high byte first)
inline constexpr Word DataConnect{"K", Op::DataConnect, 6};     ///< the same
inline constexpr Word Speak{"X", Op::Speak, Text};

/// A speaker takes the first that fits a read, its argument included.
inline constexpr std::array Commands{
    AlarmBegun, AlarmOver,  AlarmAny, DeviceInfo, VolumeCode,    Time,        ContentServer, ContentServer2,
    PlayList,   Preload,    Purge,    PlayUrl,    Stop,          PlayList2,   Stop2,         Stream,
    TaskAdd,    TaskRemove, TaskStop, TaskList,   Reboot,        TasksClear,  TasksStop,     FileTransfer,
    Volume,     Microphone, Debug,    Gpio,       ServerAddress, DataConnect, Speak,
};

// --- what both ends say while nothing happens ---
inline constexpr char KeepAlive[] = "OKOK"; ///< to the speaker, on the control connection
inline constexpr char Heartbeat[] = "HELL"; ///< to the speaker, on the data connection

// --- reports: what each begins with ---
inline constexpr char StatusFormS[] = "DEIFS"; ///< then the form, as after the next two
inline constexpr char StatusFormColon[] = "DEIF:";
inline constexpr char StatusForm[] = "DEIF";
inline constexpr char Connecting[] = "K"; ///< has heard DataConnect; 3 bytes in all
inline constexpr char PathDone[] = "UA1";
inline constexpr char Path[] = "UA2"; ///< plays this
inline constexpr char Playing[] = "UA3";
inline constexpr char Waiting[] = "UA4";
inline constexpr char Paused[] = "UA5";
inline constexpr char Preloaded[] = "UB1";
inline constexpr char Purged[] = "UC1";
inline constexpr char TimeWanted[] = "UD1";
inline constexpr char Tasks[] = "UT1"; ///< its stored ones
inline constexpr char Updated[] = "UT2";
inline constexpr char Version[] = "UV"; ///< decimal number
inline constexpr char Alarm[] = "Y";    ///< an alarm input: two bytes
inline constexpr char OtherUpdate[] = "U";
inline constexpr char Mp3Path[] = "MP__3"; ///< anywhere in the read: a request for a chunk

} // namespace words
