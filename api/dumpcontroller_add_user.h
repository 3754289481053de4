#pragma once

#include "api/call.h"
#include "api/strictsql.h"
#include "http/httprequesthandler.h"
#include "service/querytable.h"

#include <chrono>
#include <memory>
#include <optional>

class Core_corss;
class RequestMapper;
struct Route;
class Severinit;
class sqlite;
class Task_workque;

/// One request of the management interface: turns it into a parameter map and calls one endpoint.
/// Built for each request on the worker that serves it; keeps nothing between requests.
/// The endpoints are spread over one file per family: accounts, accountinfo, payments, queries, devices,
/// groups, files, uploads, speech, tasks, plans, temporaryplays, playback, alarmlines.
class DumpController_add_user : public HttpRequestHandler {
    Q_OBJECT
public:
    DumpController_add_user(sqlite* database, Task_workque* tasks, Severinit* devices, RequestMapper* mapper);
    void service(HttpRequest& request, HttpResponse& response) override;
    /// The request's parameters, wherever they stand in it; on failure `error` is the reply.
    static std::optional<Params> parametersOf(const HttpRequest& request, QByteArray& error);
    /// The reply to a request whose parameters are known; `uploads` holds its files, if any. Afterwards
    /// delay() tells how long it is to be held back.
    QByteArray answer(const QByteArray& method, const QByteArray& path, const Params&,
                      HttpRequest* uploads = nullptr);

    std::chrono::milliseconds delay(const QString& address) const;

    /// What a route points at; called when its guard has let the request pass.
    using Endpoint = QByteArray (DumpController_add_user::*)(const Call&);

    QByteArray dbtest(const Call&);

    // accounts.cpp
    QByteArray user_add_lite(const Call&);
    QByteArray user_add(const Call&);
    QByteArray user_dbini(const Call&);
    QByteArray user_gtoken(const Call&);
    QByteArray user_onlygtoken(const Call&);
    QByteArray fucktext(const Call&);

    // accountinfo.cpp
    QByteArray get_user_info(const Call&);
    QByteArray get_user_infokvt(const Call&);
    QByteArray get_user_infoh(const Call&);
    QByteArray get_user_node(const Call&);

    // payments.cpp
    QByteArray odds_fuckpay(const Call&);
    QByteArray seemyoder(const Call&);
    QByteArray seemydaoqishebei(const Call&);

    // queries.cpp
    QByteArray user_nodejs(const Call&);
    QByteArray user_nodejsc(const Call&);
    QByteArray user_nodejso(const Call&);
    QByteArray user_nodesqlite3js(const Call&);
    QByteArray user_nodesqlite3jsc(const Call&);

    // devices.cpp
    QByteArray user_add_dev(const Call&);
    QByteArray user_get_devlist(const Call&);
    QByteArray user_deldevs(const Call&);
    QByteArray user_renamedevs(const Call&);
    QByteArray user_resndevs(const Call&);
    QByteArray user_enable_device(const Call&);
    QByteArray user_disable_device(const Call&);
    QByteArray user_LIST(const Call&);
    QByteArray get_devicelistweb(const Call&);
    QByteArray add_user_devices_cross(const Call&);

    // groups.cpp
    QByteArray user_addgrep(const Call&);
    QByteArray user_listgrep(const Call&);
    QByteArray user_grpeditname(const Call&);
    QByteArray user_grpeditdevs(const Call&);
    QByteArray user_listdetailgroups(const Call&);
    QByteArray user_getonegdevs(const Call&);
    QByteArray user_rmgrep(const Call&);

    // files.cpp
    QByteArray user_reg_file(const Call&);
    QByteArray user_wxreg_file(const Call&);
    QByteArray user_get_filelist(const Call&);
    QByteArray user_get_filelist_lite(const Call&);
    QByteArray user_get_filelist_wx(const Call&);
    QByteArray user_del_file(const Call&);
    QByteArray user_del_file_lite(const Call&);

    // uploads.cpp
    QByteArray user_reg_filetx(const Call&);
    QByteArray user_reg_filelg(const Call&);
    QByteArray user_reg_fileallk(const Call&);
    QByteArray swapupload(const Call&);

    // speech.cpp
    QByteArray user_save_ttsfile(const Call&);
    QByteArray user_play_tts(const Call&);

    // tasks.cpp
    QByteArray user_add_task(const Call&);
    QByteArray user_get_tasklist(const Call&);
    QByteArray user_get_task(const Call&);
    QByteArray user_DEL_task(const Call&);
    QByteArray user_edit_task_(const Call&);
    QByteArray user_edit_task_devs(const Call&);
    QByteArray user_edit_task_files(const Call&);
    QByteArray user_enable_task(const Call&);
    QByteArray user_disable_task(const Call&);
    QByteArray user_start_task(const Call&);
    QByteArray user_stop_task(const Call&);
    QByteArray user_taskconfigini(const Call&); ///< reached by no route

    // temporaryplays.cpp
    QByteArray user_play_tmp_on_time_once(const Call&);
    QByteArray user_list_tmp_on_time_once(const Call&);
    QByteArray user_stop_tmp_on_time_once(const Call&);

    // plans.cpp
    QByteArray user_addplant(const Call&);
    QByteArray user_deleteplant(const Call&);
    QByteArray user_listtaskplant(const Call&);
    QByteArray user_edittaskplant(const Call&);
    QByteArray user_enabletaskplant(const Call&);
    QByteArray user_disabletaskplant(const Call&);

    // playback.cpp
    QByteArray user_play_file(const Call&);
    QByteArray user_play_fileq39(const Call&);
    QByteArray user_stop_file(const Call&);
    QByteArray user_stop_fileq39(const Call&);
    QByteArray user_edit_vols(const Call&);
    QByteArray user_edit_debug(const Call&);
    QByteArray user_edit_alldebug(const Call&); ///< reached by no route
    QByteArray user_play_wplant(const Call&);

    // alarmlines.cpp
    QByteArray user_add_DOPlane(const Call&);
    QByteArray user_get_DOPlist(const Call&);
    QByteArray user_rm_DOPlane(const Call&);
    QByteArray user_reg_DOPane(const Call&);
    QByteArray user_reg_DOFile(const Call&);
    QByteArray user_reg_listDOFile(const Call&);
    QByteArray user_unreg_DO(const Call&);
    QByteArray user_unreg_DO_foce(const Call&);
    QByteArray setwaringlinetaskid(const Call&);
    QByteArray rmwaringlinetaskid(const Call&);
    QByteArray Startwaringtask(const Call&);

private:
    /// Every reply of an endpoint comes by here, where account and row are known.
    QByteArray serve(const Route& route, Call& call);
    QByteArray runQuery(const QString& set, const Call&, bool inProcess);
    template<typename Send>
    QByteArray commandSpeakers(const Call&, Send send);
    /// Those of the speakers that the account may command; whom it names in vain the log tells.
    QStringList commandable(int userid, const QStringList& sns) const;
    /// The account with its node and the devices that `devices` selects. An object with "res": false
    /// when the login is refused.
    /// The account "username" when "passwd" is its password: a row with every column, else none. What
    /// StrictSql refuses is told in the result.
    SqlResult findLogin(const Call&) const;
    QJsonObject accountInfo(const Call&, const QString& devices);
    /// The refusal of a name and password that are no account's.
    QByteArray refuseLogin(const Call& call, const QString& word = QStringLiteral("ER_REJECT"));
    /// Takes over what a command left of the token that it ends, and counts a wrong login.
    void afterCommand(const QueryTable::Command& command, const Call&, const QByteArray& answer);
    StrictSql db() const { return StrictSql(*m_database); } ///< this worker's own
    /// Sends commands to the nodes that their speakers are on.
    /// `call`: whose request the plays are. `alarmOf`: the account whose line has asked for them; 0: none.
    std::unique_ptr<Core_corss> commands(const Call& call, int alarmOf = 0) const;
    /// The audio uploads' common body; `sizeKey` is the key that carries the size in bytes.
    QByteArray storeUploadedAudio(const Call&, const char* sizeKey);
    /// Replaces the picture at `url` (relative to the document root) by the uploaded one.
    QByteArray storePicture(const Call&, const QString& url);

    sqlite* m_database;
    Task_workque* m_tasks;
    Severinit* m_devices;
    RequestMapper* m_mapper;
    std::optional<QString> m_wrongLogin; ///< the name
};
