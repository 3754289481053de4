#include "api/routes.h"

#include <algorithm>

using C = DumpController_add_user;

const std::vector<Route>& getRoutes() {
    static const std::vector<Route> routes{
        {"/user/startwarning", &C::user_play_wplant, {}, {}, {}, true},
        {"/get_devicelistweb.php", &C::get_devicelistweb},
        {"/Startwaringtask.php", &C::Startwaringtask},
    };
    return routes;
}

const std::vector<Route>& postRoutes() {
    static const std::vector<Route> routes{
        // clang-format off
        {"/user/adduser", &C::user_add, &C::user_add_lite},
        {"/user/dbreset", &C::user_dbini},
        {"/user/gtoken", &C::user_gtoken},
        {"/user/checkuser.php", &C::user_onlygtoken},
        {"/user/deviceadd", &C::user_add_dev},
        {"/user/listdev", &C::user_get_devlist},
        {"/user/deldevs", &C::user_deldevs},
        {"/user/uploadfile", &C::user_reg_file},
        {"/user/wxtouxianguploadfile", &C::user_reg_filetx},
        {"/user/wxlogopnguploadfile", &C::user_reg_filelg},
        {"/user/wxuploadfile", &C::user_wxreg_file},
        {"/user/allfileupload", &C::user_reg_fileallk},
        {"/user/swapupload", &C::swapupload},
        {"/user/listfile", &C::user_get_filelist, &C::user_get_filelist_lite},
        {"/user/wxxclistfile", &C::user_get_filelist_wx, &C::user_get_filelist_lite},
        {"/user/delfile", &C::user_del_file, &C::user_del_file_lite},
        {"/user/add_task", &C::user_add_task},
        {"/user/test", "dbtest"},
        {"/user/list_task", &C::user_get_tasklist},
        {"/user/sndebug", &C::user_edit_debug},
        {"/user/del_task", &C::user_DEL_task},
        {"/user/edit_task", &C::user_edit_task_},
        {"/user/editsns_task", &C::user_edit_task_devs},
        {"/user/editfiles_task", &C::user_edit_task_files},
        {"/user/enabletask", &C::user_enable_task},
        {"/user/disabletask", &C::user_disable_task},
        {"/user/starttask", &C::user_start_task},
        {"/user/stoptask", &C::user_stop_task},
        {"/user/tmpstartpl", &C::user_play_tmp_on_time_once},
        {"/user/tmplistpl", &C::user_list_tmp_on_time_once},
        {"/user/tmpstoppl", &C::user_stop_tmp_on_time_once},
        {"/user/getone_task", &C::user_get_task},
        {"/user/savettsfile", &C::user_save_ttsfile},
        {"/user/ttsplayfile", &C::user_play_tts},
        {"/user/urlplay", &C::user_play_file},
        {"/user/urlq39play", &C::user_play_fileq39},
        {"/user/urlstop", &C::user_stop_file},
        {"/user/urlq39stop", &C::user_stop_fileq39},
        {"/user/editvols", &C::user_edit_vols},
        {"/user/addgname", &C::user_addgrep},
        {"/user/listgroups", &C::user_listgrep},
        {"/user/editgname", &C::user_grpeditname},
        {"/user/editgdevs", &C::user_grpeditdevs},
        {"/user/listdetailgroups", &C::user_listdetailgroups},
        {"/user/getonegdevs", &C::user_getonegdevs},
        {"/user/delgroup", &C::user_rmgrep},
        {"/user/addplant", &C::user_addplant},
        {"/user/deleteplant", &C::user_deleteplant},
        {"/user/listplant", &C::user_listtaskplant},
        {"/user/plantedittask", &C::user_edittaskplant},
        {"/user/plantenable", &C::user_enabletaskplant},
        {"/user/plantdisable", &C::user_disabletaskplant},
        {"/user/devicedisable", &C::user_disable_device},
        {"/user/deviceenable", &C::user_enable_device},
        {"/user/resn", &C::user_resndevs},
        {"/user/redevname", &C::user_renamedevs},
        {"/user/olist", &C::user_LIST},
        {"/user/wplantadd", &C::user_add_DOPlane},
        {"/user/wplantlist", &C::user_get_DOPlist},
        {"/user/wplantrm", &C::user_rm_DOPlane},
        {"/user/wplantrg", &C::user_reg_DOPane},
        {"/user/wfilerg", &C::user_reg_DOFile},
        {"/user/wfilelistrg", &C::user_reg_listDOFile},
        {"/user/wfileunrg", &C::user_unreg_DO},
        {"/user/wfileforceunrg", &C::user_unreg_DO_foce},
        {"/user/fnkukei", &C::fucktext, {}, &C::user_nodejs, &C::user_nodesqlite3js},
        {"/user/fnckukei", &C::fucktext, {}, &C::user_nodejsc, &C::user_nodesqlite3jsc},
        {"/user/fnokukei", &C::user_nodejso},
        {"/user/get_user_info.php", &C::get_user_info},
        {"/user/get_user_infokvt.php", &C::get_user_infokvt},
        {"/user/add_user_devices_cross.php", &C::add_user_devices_cross},
        {"/get_user_infoh.php", &C::get_user_infoh},
        {"/get_user_infokvt.php", &C::get_user_infokvt},
        {"/get_user_info.php", &C::get_user_info},
        {"/get_user_node.php", &C::get_user_node},
        {"/checkuser.php", &C::user_onlygtoken},
        {"/add_user_devices_cross.php", &C::add_user_devices_cross},
        {"/user/fucktext", &C::fucktext},
        {"/user/odds_fuckpay", &C::odds_fuckpay},
        {"/user/seemyoder", &C::seemyoder},
        {"/user/seemydaoqishebei", &C::seemydaoqishebei},
        {"/user/setwaringlinetaskid", &C::setwaringlinetaskid},
        {"/user/rmwaringlinetaskid", &C::rmwaringlinetaskid},
        {"/get_devicelistweb.php", &C::get_devicelistweb},
        // clang-format on
    };
    return routes;
}

const Route* findRoute(const std::vector<Route>& routes, const QByteArray& path) {
    const auto found = std::find_if(routes.begin(), routes.end(),
                                    [&](const Route& route) { return path.startsWith(route.prefix); });
    return found == routes.end() ? nullptr : &*found;
}

const Handler& handlerFor(const Route& route, int kind) {
    const Handler& own = kind == 0   ? route.kind0
                         : kind == 1 ? route.kind1
                         : kind == 3 ? route.kind3
                                     : route.handler;
    return std::holds_alternative<std::monostate>(own) ? route.handler : own;
}
