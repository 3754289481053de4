#pragma once

#include "api/call.h"
#include "api/querytable.h"
#include "api/strictsql.h"
#include "http/httprequesthandler.h"

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
    QByteArray answer(const QByteArray& method, const QByteArray& path, const Params&, HttpRequest& uploads);

    std::chrono::milliseconds delay(const QString& address) const;

    // What a route may point at.
    using Endpoint = QByteArray (DumpController_add_user::*)(const Params&);
    using UploadEndpoint = QByteArray (DumpController_add_user::*)(const Params&, HttpRequest&);
    using PathEndpoint = QByteArray (DumpController_add_user::*)(const Params&, const QString& path);

    // accounts.cpp
    QByteArray user_add_lite(const Params&);
    QByteArray user_add(const Params&);
    QByteArray user_dbini(const Params&);
    QByteArray user_gtoken(const Params&);
    QByteArray user_onlygtoken(const Params&);
    QByteArray fucktext(const Params&);

    // accountinfo.cpp
    QByteArray get_user_info(const Params&, const QString& path);
    QByteArray get_user_infokvt(const Params&, const QString& path);
    QByteArray get_user_infoh(const Params&, const QString& path);
    QByteArray get_user_node(const Params&, const QString& path);

    // payments.cpp
    QByteArray odds_fuckpay(const Params&);
    QByteArray seemyoder(const Params&);
    QByteArray seemydaoqishebei(const Params&);

    // queries.cpp
    QByteArray user_nodejs(const Params&, const QString& path);
    QByteArray user_nodejsc(const Params&, const QString& path);
    QByteArray user_nodejso(const Params&, const QString& path);
    QByteArray user_nodesqlite3js(const Params&, const QString& path);
    QByteArray user_nodesqlite3jsc(const Params&, const QString& path);

    // devices.cpp
    QByteArray user_add_dev(const Params&);
    QByteArray user_get_devlist(const Params&);
    QByteArray user_deldevs(const Params&);
    QByteArray user_renamedevs(const Params&);
    QByteArray user_resndevs(const Params&);
    QByteArray user_enable_device(const Params&);
    QByteArray user_disable_device(const Params&);
    QByteArray user_LIST(const Params&);
    QByteArray get_devicelistweb(const Params&, const QString& path);
    QByteArray add_user_devices_cross(const Params&, const QString& path);

    // groups.cpp
    QByteArray user_addgrep(const Params&);
    QByteArray user_listgrep(const Params&);
    QByteArray user_grpeditname(const Params&);
    QByteArray user_grpeditdevs(const Params&);
    QByteArray user_listdetailgroups(const Params&);
    QByteArray user_getonegdevs(const Params&);
    QByteArray user_rmgrep(const Params&);

    // files.cpp
    QByteArray user_reg_file(const Params&, HttpRequest&);
    QByteArray user_wxreg_file(const Params&, HttpRequest&);
    QByteArray user_get_filelist(const Params&);
    QByteArray user_get_filelist_lite(const Params&);
    QByteArray user_get_filelist_wx(const Params&);
    QByteArray user_del_file(const Params&);
    QByteArray user_del_file_lite(const Params&);

    // uploads.cpp
    QByteArray user_reg_filetx(const Params&, HttpRequest&);
    QByteArray user_reg_filelg(const Params&, HttpRequest&);
    QByteArray user_reg_fileallk(const Params&, HttpRequest&);
    QByteArray swapupload(const Params&, HttpRequest&);

    // speech.cpp
    QByteArray user_save_ttsfile(const Params&);
    QByteArray user_play_tts(const Params&);

    // tasks.cpp
    QByteArray user_add_task(const Params&);
    QByteArray user_get_tasklist(const Params&);
    QByteArray user_get_task(const Params&);
    QByteArray user_DEL_task(const Params&);
    QByteArray user_edit_task_(const Params&);
    QByteArray user_edit_task_devs(const Params&);
    QByteArray user_edit_task_files(const Params&);
    QByteArray user_enable_task(const Params&);
    QByteArray user_disable_task(const Params&);
    QByteArray user_start_task(const Params&);
    QByteArray user_stop_task(const Params&);
    QByteArray user_taskconfigini(const Params&); ///< reached by no route

    // temporaryplays.cpp
    QByteArray user_play_tmp_on_time_once(const Params&);
    QByteArray user_list_tmp_on_time_once(const Params&);
    QByteArray user_stop_tmp_on_time_once(const Params&);

    // plans.cpp
    QByteArray user_addplant(const Params&);
    QByteArray user_deleteplant(const Params&);
    QByteArray user_listtaskplant(const Params&);
    QByteArray user_edittaskplant(const Params&);
    QByteArray user_enabletaskplant(const Params&);
    QByteArray user_disabletaskplant(const Params&);

    // playback.cpp
    QByteArray user_play_file(const Params&);
    QByteArray user_play_fileq39(const Params&);
    QByteArray user_stop_file(const Params&);
    QByteArray user_stop_fileq39(const Params&);
    QByteArray user_edit_vols(const Params&);
    QByteArray user_edit_debug(const Params&);
    QByteArray user_edit_alldebug(const Params&); ///< reached by no route
    QByteArray user_play_wplant(const Params&);

    // alarmlines.cpp
    QByteArray user_add_DOPlane(const Params&);
    QByteArray user_get_DOPlist(const Params&);
    QByteArray user_rm_DOPlane(const Params&);
    QByteArray user_reg_DOPane(const Params&);
    QByteArray user_reg_DOFile(const Params&);
    QByteArray user_reg_listDOFile(const Params&);
    QByteArray user_unreg_DO(const Params&);
    QByteArray user_unreg_DO_foce(const Params&);
    QByteArray setwaringlinetaskid(const Params&);
    QByteArray rmwaringlinetaskid(const Params&);
    QByteArray Startwaringtask(const Params&, const QString& path);

private:
    QByteArray call(const Route& route, const QByteArray& path, const Params&, HttpRequest& uploads);
    QByteArray runQuery(const QString& set, const Params&, const QString& path, bool inProcess);
    template<typename Send>
    QByteArray commandSpeakers(const Params&, std::initializer_list<const char*> names, Send send);
    /// Those of the speakers that the account may command; whom it names in vain the log tells.
    QStringList commandable(int userid, const QStringList& sns) const;
    /// The account with its node and the devices that `devices` selects. An object with "res": false
    /// when the parameters or the login are refused.
    QJsonObject accountInfo(const Params&, const QString& devices);
    /// The refusal of a name and password that are no account's.
    QByteArray refuseLogin(const Call& call, const QString& word = QStringLiteral("ER_REJECT"));
    /// Takes over what a command left of the token that it ends, and counts a wrong login.
    void afterCommand(const QueryTable::Command& command, const Params&, const QByteArray& answer);
    StrictSql db() const { return StrictSql(*m_database); } ///< this worker's own
    /// Sends commands to the nodes that their speakers are on.
    std::unique_ptr<Core_corss> commands() const;
    /// The audio uploads' common body; `sizeKey` is the key that carries the size in bytes.
    QByteArray storeUploadedAudio(const Params&, HttpRequest&, const char* sizeKey);
    /// Replaces the picture at `url` (relative to the document root) by the uploaded one.
    QByteArray storePicture(const Params&, HttpRequest&, const QString& url);

    sqlite* m_database;
    Task_workque* m_tasks;
    Severinit* m_devices;
    RequestMapper* m_mapper;
    std::optional<QString> m_wrongLogin; ///< the name
};
