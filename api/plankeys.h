#pragma once

#include <QByteArray>
#include <QString>

/// The random part of each alarm plan's call-back address, which nobody can tell from the plan's number.
/// All are made from one random key in "plans.key" of the directory `waringdir`, which is written at the
/// first use and readable by the service alone. Without it the parts hold until the service ends.
/// Constant after construction; any thread.
class PlanKeys {
public:
    explicit PlanKeys(const QString& directory);
    /// 32 hexadecimal digits.
    QString of(int plan) const;

private:
    QByteArray m_key;
};
