#pragma once

#include <QString>

/// Who asks: an account with what decides about its rights. See service/visibility.h.
struct Caller {
    qint64 account = 0; ///< sbox_users.id; 0: nobody
    QString username;
    QString name;      ///< shown to people
    qint64 master = 0; ///< the account that manages this one; 0: none
    QString mask;      ///< ids of its master's speakers that it may use, separated by commas
    bool isAdmin = false;
    qint64 token = 0; ///< apitoken.id of the token that it came with
};
