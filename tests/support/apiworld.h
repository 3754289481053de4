#pragma once

#include "support/service.h"

#include <map>
#include <QTest>

/// The service with two accounts, Alice and Bob, whose objects reset() puts back. One a database kind and
/// way: as fixed, or `hardened`.
class ApiWorld {
public:
    static constexpr int AliceLamp = 11, AliceBell = 12, BobHorn = 21; ///< devices
    static constexpr int AliceGroup = 31, BobGroup = 41;               ///< groups; each holds one device
    static constexpr int AliceFile = 51, BobFile = 61;
    static constexpr int AliceTask = 71; ///< her lamp plays her file
    static QString lamp() { return QString(32, 'a'); }
    static QString bell() { return QString(32, 'b'); }
    static QString horn() { return QString(32, 'c'); }

    static ApiWorld& of(int kind, bool hardened = false) {
        auto& world = worlds()[{kind, hardened}];
        if (!world)
            world.reset(new ApiWorld(kind, hardened));
        return *world;
    }
    /// Stops the services. For cleanupTestCase(): they must go before the application object.
    static void stopAll() { worlds().clear(); }

    void reset() {
        for (const char* table : {"sbox_device_info", "sbox_group", "group_seed", "snover", "fei",
                                  "warningplant", "userfile", "task", "taskseed", "taskfile"})
            service.sql(QString("DELETE FROM `%1`").arg(table));
        service.sql(QString("DELETE FROM `sbox_users` WHERE `id` not in (%1, %2)").arg(alice.id).arg(bob.id));
        for (Account* account : {&alice, &bob})
            loginAgain(*account);
        addDevice(AliceLamp, alice, lamp(), 0);
        addDevice(AliceBell, alice, bell(), 99);
        addDevice(BobHorn, bob, horn(), 0);
        addGroup(AliceGroup, alice, AliceLamp, lamp());
        addGroup(BobGroup, bob, BobHorn, horn());
        addFile(AliceFile, alice);
        addFile(BobFile, bob);
        addTask(AliceTask, alice, AliceLamp, AliceFile);
        service.sql(
            QString("INSERT INTO `snover` (`sn`, `overtime`, `statu`, `iccid`, `pay`)"
                    " VALUES ('%1', '2199-01-01', 1, '8986', 12), ('%2', '2199-01-01', 1, '8987', 13)")
                .arg(lamp(), horn()));
    }

    /// Every row that a request could change.
    QString snapshot() {
        QString text;
        for (const char* table :
             {"sbox_users", "sbox_device_info", "sbox_group", "group_seed", "snover", "fei", "warningplant",
              "swap_info", "xieyi_mod", "userfile", "task", "taskseed", "taskfile"}) {
            const auto rows = service.sql(QString("SELECT * FROM `%1` ORDER BY `id`").arg(table));
            for (const QVariantMap& row : rows)
                text += QJsonDocument(QJsonObject::fromVariantMap(row)).toJson(QJsonDocument::Compact);
        }
        return text;
    }
    /// The first value that a statement gives, as text; values of several rows joined with ",".
    QString cell(const QString& statement) {
        QStringList cells;
        for (const QVariantMap& row : service.sql(statement))
            cells += row.first().toString();
        return cells.join(',');
    }

    Service service;
    Account alice;
    Account bob;

private:
    using Worlds = std::map<std::pair<int, bool>, std::unique_ptr<ApiWorld>>;
    static Worlds& worlds() {
        static Worlds worlds;
        return worlds;
    }
    ApiWorld(int kind, bool hardened)
        : service(options(kind, hardened)) {
        if (!service.start())
            qFatal("no service");
        alice = service.addAccount("alice");
        bob = service.addAccount("bob");
    }
    static ServiceOptions options(int kind, bool hardened) {
        ServiceOptions options;
        options.kind = kind;
        options.settings["hardened"] = hardened;
        options.files["unuse.conf"] = "[\"" + QByteArray(32, 'e') + "\"]";
        return options;
    }
    void addDevice(int id, const Account& owner, const QString& sn, int iswarning) {
        service.sql(QString("INSERT INTO `sbox_device_info` (`id`, `user_id`, `device_name`, `device_seed`, "
                            "`iswarning`, `xhstatus`) VALUES (%1, %2, 'device %1', '%3', %4, 0)")
                        .arg(id)
                        .arg(owner.id)
                        .arg(sn)
                        .arg(iswarning));
    }
    /// A test may have ended the token.
    void loginAgain(Account& account) {
        if (cell(QString("SELECT `token` FROM `sbox_users` WHERE `id` = %1").arg(account.id)) ==
            account.token)
            return;
        const HttpReply login = service.http().postForm(
            "/user/gtoken", {{"username", account.name}, {"passwd", account.password}});
        account.token = login["token"].toString();
    }
    void addFile(int id, const Account& owner) {
        service.sql(QString("INSERT INTO `userfile` (`id`, `userid`, `filename`, `url`, `len`) VALUES (%1, "
                            "%2, 'Zg==', 'mp3/%1.mp3', 20)")
                        .arg(id)
                        .arg(owner.id));
    }
    void addTask(int id, const Account& owner, int device, int file) {
        service.sql(QString("INSERT INTO `task` (`id`, `userid`, `start_time`, `task_name`, `len`, `enable`) "
                            "VALUES (%1, %2, 1, 'task %1', 20, 0)")
                        .arg(id)
                        .arg(owner.id));
        for (const QString& member :
             {QString("`taskseed` (`taskid`, `devseedid`) VALUES (%1, %2)").arg(id).arg(device),
              QString("`taskfile` (`taskid`, `fileid`) VALUES (%1, %2)").arg(id).arg(file)})
            service.sql("INSERT INTO " + member);
    }
    void addGroup(int id, const Account& owner, int device, const QString& sn) {
        service.sql(
            QString("INSERT INTO `sbox_group` (`id`, `userid`, `group_name`) VALUES (%1, %2, 'group %1')")
                .arg(id)
                .arg(owner.id));
        service.sql(
            QString("INSERT INTO `group_seed` (`gid`, `seed`, `userid`, `devid`) VALUES (%1, '%2', %3, %4)")
                .arg(id)
                .arg(sn)
                .arg(owner.id)
                .arg(device));
    }
};

/// True when every key of `wanted` (a JSON object as text) has that value in the reply.
inline bool holds(const HttpReply& reply, const QByteArray& wanted) {
    const QJsonObject object = QJsonDocument::fromJson(wanted).object();
    const QJsonObject answer = reply.json();
    bool all = !answer.isEmpty();
    for (auto entry = object.begin(); entry != object.end(); ++entry)
        all = all && answer.value(entry.key()) == entry.value();
    if (!all)
        qWarning("wanted %s, got %s", wanted.constData(), reply.body.constData());
    return all;
}
