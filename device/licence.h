#pragma once

#include <QString>

/// The check of an installation's licence and of the serials registered under it.
class LicenceCheck {
public:
    virtual ~LicenceCheck() = default;
    /// Whether a request that names `seed` and `key` may change the registered speakers.
    virtual bool mayRegister(const QString& seed, const QString& key) const = 0;
};

/// The policy of an installation without a licence server: everything is accepted.
class AcceptingLicence final : public LicenceCheck {
public:
    bool mayRegister(const QString& /*seed*/, const QString& /*key*/) const override { return true; }
};
