#include "api/routes.h"

#include <algorithm>

using C = DumpController_add_user;

namespace {
constexpr unsigned HighestDebugMode = 3;

constexpr Auth Nobody{};
constexpr Auth Token{By::Token, "_FALSE5"};
constexpr Auth SpeechToken{By::Token, "_FALSE51"};
constexpr Auth ListToken{By::Token, "_FALSE52"};
constexpr Auth Loose{By::LooseToken};
constexpr Auth SafeToken{By::SafeToken, "_FALSE5"};
constexpr Auth SafeUserToken{By::SafeUserToken, "_FALSE5"};
constexpr Auth ServiceKey{By::ServiceKey, "sskey_ER"};
constexpr Auth SwitchKey{By::ServiceKey, "sskey_error", -2};
constexpr Auth PayKey{By::PayKey, "sskey_ER"};
constexpr Auth PlanKey{By::PlanKey, "_FALSE6", -2};

QByteArray longText(bool isTooLong) {
    return isTooLong ? refusal(QStringLiteral("ParER")) : QByteArray();
}

QByteArray longLogin(const Call& call) {
    return longText(call.isLonger("username", Call::MaxName) || call.isLonger("passwd", Call::MaxName));
}

QByteArray longDevice(const Call& call) {
    return longText(call.hasLongText() || call.isLonger("sed", Call::MaxName));
}

QByteArray longPayment(const Call& call) {
    return longText(call.hasLongText() || call.isLonger("sn", Call::MaxName));
}

QByteArray onLite(const Call& /*call*/) {
    return refusal(QStringLiteral("no Need to add device on lite mode."));
}

QByteArray noSpeakers(const Call& call) {
    return call.list("snlist").isEmpty() ? noTargets() : QByteArray();
}

/// A mode outside 0..3, negative ones included, or no serial.
QByteArray noDebugMode(const Call& call) {
    if (static_cast<unsigned>(call.number("dsv")) > HighestDebugMode)
        return refusal(QStringLiteral("Range ER"), -3);
    return call.text("sn").size() == SerialLength ? QByteArray() : noTargets();
}
} // namespace

const std::vector<Route>& getRoutes() {
    static const std::vector<Route> routes{
        {"/user/startwarning", &C::user_play_wplant, {{"pltid"}, "Paruser", PlanKey}, AnyKind, true},
        {"/get_devicelistweb.php", &C::get_devicelistweb, {{"username", "passwd"}, "ParER"}},
        {"/Startwaringtask.php", &C::Startwaringtask},
    };
    return routes;
}

const std::vector<Route>& postRoutes() {
    static const Guard login{{"username", "passwd"}, "ParER"};
    static const Guard tokenLogin{{"username", "passwd"}, "ParERuser_gtoken"};
    static const Guard alarmDevice{
        {"username", "passwd", "name", "sed"}, "ParER", Nobody, Renames, longDevice};
    static const Guard program{{}, "", Nobody, RunsQuery}; // its command's table says what it asks for
    static const std::vector<Route> routes{
        // clang-format off
        {"/user/adduser", &C::user_add_lite, {{"sskey", "username", "passwd"}, "ParER", ServiceKey, 0, longLogin}, Kind0},
        {"/user/adduser", &C::user_add},
        {"/user/dbreset", &C::user_dbini, {{"sskey", "username", "passwd"}, "ParER", ServiceKey, Renames}},
        {"/user/gtoken", &C::user_gtoken, tokenLogin},
        {"/user/checkuser.php", &C::user_onlygtoken, tokenLogin},
        {"/user/deviceadd", &C::user_add_dev, {{"sn", "name"}, "ParERuser_add_dev", Token, 0, onLite}, Kind0},
        {"/user/deviceadd", &C::user_add_dev, {{"sn", "name"}, "ParERuser_add_dev", Token, Renames}},
        {"/user/listdev", &C::user_get_devlist, {{}, "Paruser", Token}},
        {"/user/deldevs", &C::user_deldevs, {{"snid"}, "ParERuser_add_dev", Token, Renames}},
        {"/user/uploadfile", &C::user_reg_file, {{}, "Paruser", Token, WithFile | Encodes}},
        {"/user/wxtouxianguploadfile", &C::user_reg_filetx, {{}, "Paruser", Token, WithFile | Administrator}},
        {"/user/wxlogopnguploadfile", &C::user_reg_filelg, {{}, "Paruser", Token, WithFile | Administrator}},
        {"/user/wxuploadfile", &C::user_wxreg_file, {{}, "Paruser", Token, WithFile | Encodes}},
        {"/user/allfileupload", &C::user_reg_fileallk, {{}, "Parusersss", Token, WithFile}},
        {"/user/swapupload", &C::swapupload, {{"lunbotext"}, "Parusersss", Token, WithFile | Administrator}},
        {"/user/listfile", &C::user_get_filelist_lite, {{}, "Paruser", ListToken}, Kind0},
        {"/user/listfile", &C::user_get_filelist, {{}, "Paruser", ListToken}},
        {"/user/wxxclistfile", &C::user_get_filelist_lite, {{}, "Paruser", ListToken}, Kind0},
        {"/user/wxxclistfile", &C::user_get_filelist_wx, {{}, "Paruser", ListToken}},
        {"/user/delfile", &C::user_del_file_lite, {}, Kind0},
        {"/user/delfile", &C::user_del_file, {{"fileid"}, "Paruser", Token}},
        {"/user/add_task", &C::user_add_task, {{"snids", "fileids", "start_time"}, "Paruser", Token}},
        {"/user/test", &C::dbtest},
        {"/user/list_task", &C::user_get_tasklist, {{}, "Paruser", Loose}},
        {"/user/sndebug", &C::user_edit_debug, {{"sn", "dsv"}, "Paruser", Token, 0, noDebugMode}},
        {"/user/del_task", &C::user_DEL_task, {{"taskid"}, "Paruser", Loose}},
        {"/user/edit_task", &C::user_edit_task_, {{"taskid"}, "Paruser", Loose}},
        {"/user/editsns_task", &C::user_edit_task_devs, {{"taskid", "snids"}, "Parer", Token}},
        {"/user/editfiles_task", &C::user_edit_task_files, {{"taskid", "fileids"}, "Parer", Token}},
        {"/user/enabletask", &C::user_enable_task, {{"taskid"}, "Parer", Loose}},
        {"/user/disabletask", &C::user_disable_task, {{"taskid"}, "Parer", Loose}},
        {"/user/starttask", &C::user_start_task, {{"taskid"}, "Parer", Loose}},
        {"/user/stoptask", &C::user_stop_task, {{"taskid"}, "Parer", Loose}},
        {"/user/tmpstartpl", &C::user_play_tmp_on_time_once, {{"snids", "fileids"}, "Parer", Loose}},
        {"/user/tmplistpl", &C::user_list_tmp_on_time_once, {{}, "Parer", Loose}},
        {"/user/tmpstoppl", &C::user_stop_tmp_on_time_once, {{"tpid"}, "Parer", Loose}},
        {"/user/getone_task", &C::user_get_task, {{"taskid"}, "Paruser", Loose}},
        {"/user/savettsfile", &C::user_save_ttsfile, {{"text", "vol", "speed", "shengyin", "filename"}, "Paruser", SpeechToken, Encodes}},
        {"/user/ttsplayfile", &C::user_play_tts, {{"text", "vol", "speed", "shengyin", "filename", "snlist"}, "Paruser", SpeechToken, Encodes}},
        {"/user/urlplay", &C::user_play_file, {{"url", "snlist"}, "Paruser", Token, 0, noSpeakers}},
        {"/user/urlq39play", &C::user_play_fileq39, {{"url", "snlist"}, "Paruser", Token, 0, noSpeakers}},
        {"/user/urlstop", &C::user_stop_file, {{"snlist"}, "Paruser", Token, 0, noSpeakers}},
        {"/user/urlq39stop", &C::user_stop_fileq39, {{"snlist"}, "Paruser", Token, 0, noSpeakers}},
        {"/user/editvols", &C::user_edit_vols, {{"vol", "snlist"}, "Paruser", Token, 0, noSpeakers}},
        {"/user/addgname", &C::user_addgrep, {{"gname"}, "ParERuser_add_dev", Token, Renames}},
        {"/user/listgroups", &C::user_listgrep, {{}, "ParERuser_add_dev", Token}},
        {"/user/editgname", &C::user_grpeditname, {{"gid", "gname"}, "ParERuser_add_dev", Token, Renames}},
        {"/user/editgdevs", &C::user_grpeditdevs, {{"gid", "devids"}, "ParERuser_add_dev", Token, Renames}},
        {"/user/listdetailgroups", &C::user_listdetailgroups, {{}, "ParERuser_add_dev", Token}},
        {"/user/getonegdevs", &C::user_getonegdevs, {{"gid"}, "ParERuser_add_dev", Token}},
        {"/user/delgroup", &C::user_rmgrep, {{"gid"}, "ParERuser_add_dev", Token, Renames}},
        {"/user/addplant", &C::user_addplant, {{"pname"}, "ParERuser_add_dev", Token}},
        {"/user/deleteplant", &C::user_deleteplant, {{"pid"}, "ParERuser_add_dev", Token}},
        {"/user/listplant", &C::user_listtaskplant, {{}, "ParERuser_add_dev", Token}},
        {"/user/plantedittask", &C::user_edittaskplant, {{"pid", "taskid"}, "ParERuser_add_dev", Token}},
        {"/user/plantenable", &C::user_enabletaskplant, {{"pid"}, "ParERuser_add_dev", Token}},
        {"/user/plantdisable", &C::user_disabletaskplant, {{"pid"}, "ParERuser_add_dev", Token}},
        {"/user/devicedisable", &C::user_disable_device, {{"sskey", "snlist"}, "Paruser", SwitchKey}},
        {"/user/deviceenable", &C::user_enable_device, {{"sskey", "snlist"}, "Paruser", SwitchKey}},
        {"/user/resn", &C::user_resndevs, {{"devid", "newsn"}, "ParERuser", Token, Renames}},
        {"/user/redevname", &C::user_renamedevs, {{"devid", "newname"}, "ParERuser", Token, Renames}},
        {"/user/olist", &C::user_LIST, {{}, "Paruser", SafeToken}},
        {"/user/wplantadd", &C::user_add_DOPlane, {{"url", "plantname", "snlist"}, "Paruser", Token}},
        {"/user/wplantlist", &C::user_get_DOPlist, {{}, "Paruser", Token}},
        {"/user/wplantrm", &C::user_rm_DOPlane, {{"pltid"}, "Paruser", Token}},
        {"/user/wplantrg", &C::user_reg_DOPane, {{"pltid", "sn", "dname", "fb"}, "Paruser", Token}},
        {"/user/wfilerg", &C::user_reg_DOFile, {{"url", "filename", "sn", "dname", "fb"}, "Paruser", Token}},
        {"/user/wfilelistrg", &C::user_reg_listDOFile, {{}, "Paruser", Token}},
        {"/user/wfileunrg", &C::user_unreg_DO, {{"sn", "fb", "rgid"}, "Paruser", Token}},
        {"/user/wfileforceunrg", &C::user_unreg_DO_foce, {{"sn", "fb", "rgid"}, "Paruser", Token}},
        {"/user/fnkukei", &C::user_nodejs, program, Kind1},
        {"/user/fnkukei", &C::user_nodesqlite3js, {}, Kind3},
        {"/user/fnckukei", &C::user_nodejsc, program, Kind1},
        {"/user/fnckukei", &C::user_nodesqlite3jsc, {}, Kind3},
        {"/user/fnokukei", &C::user_nodejso, program, Kind1},
        {"/user/fnokukei", &C::user_nodejso},
        {"/user/get_user_info.php", &C::get_user_info, login},
        {"/user/get_user_infokvt.php", &C::get_user_infokvt, login},
        {"/user/add_user_devices_cross.php", &C::add_user_devices_cross, alarmDevice},
        {"/get_user_infoh.php", &C::get_user_infoh, login},
        {"/get_user_infokvt.php", &C::get_user_infokvt, login},
        {"/get_user_info.php", &C::get_user_info, login},
        {"/get_user_node.php", &C::get_user_node},
        {"/checkuser.php", &C::user_onlygtoken, tokenLogin},
        {"/add_user_devices_cross.php", &C::add_user_devices_cross, alarmDevice},
        {"/user/fucktext", &C::fucktext},
        {"/user/odds_fuckpay", &C::odds_fuckpay, {{"sn", "overtime", "userid", "fei", "info"}, "ParER", PayKey, 0, longPayment}},
        {"/user/seemyoder", &C::seemyoder, {{"userid"}, "ParER", SafeUserToken}},
        {"/user/seemydaoqishebei", &C::seemydaoqishebei, {{"userid"}, "ParER", SafeUserToken}},
        {"/user/setwaringlinetaskid", &C::setwaringlinetaskid, {{"sn", "taskid", "username", "passwd", "host", "lineid"}, "Paruser", Token}},
        {"/user/rmwaringlinetaskid", &C::rmwaringlinetaskid, {{"sn", "lineid"}, "Paruser", Token}},
        {"/get_devicelistweb.php", &C::get_devicelistweb, login},
        // clang-format on
    };
    return routes;
}

const Route* findRoute(const std::vector<Route>& routes, const QByteArray& path, int kind) {
    const auto found = std::find_if(routes.begin(), routes.end(), [&](const Route& route) {
        return (route.kinds & (1U << static_cast<unsigned>(kind))) && path.startsWith(route.prefix);
    });
    return found == routes.end() ? nullptr : &*found;
}
