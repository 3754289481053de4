#pragma once

#include "zones/order.h"

#include <optional>
#include <QByteArray>
#include <QJsonObject>
#include <QString>
#include <QStringList>
#include <vector>

/// The words of both commands, and what stands in the place of a list for all speakers of an order.
constexpr char OrderWord[] = "ORDER";
constexpr char EndOrderWord[] = "ENDORDER";
constexpr char Everybody[] = "all";

/// What an announcement plays, and how it asks for its speakers: what travels in an "ORDER" command
/// (docs/broadcasts.md). Pure.
struct Announcement {
    struct Title {
        QString url;
        zones::Time length{0};   ///< 0: not known
        bool isSeekable = false; ///< a file of this service, which gives it from any second on
        QString ownFile;         ///< made for this order alone, below the document root; may be empty
    };
    /// Bounds of what one order may hold: an hour's worth of short titles, and what a command line may be.
    static constexpr int MaxTitles = 1000;
    static constexpr int MaxUrlBytes = 4096;

    quint64 id = 0;
    QString name; ///< for who reads of it on another node
    std::vector<Title> titles;
    int rounds = 1;
    int priority = 100;
    int volume = 0; ///< 0: as it is
    zones::WhenBusy whenBusy = zones::WhenBusy::Interrupt;
    zones::Resume resume = zones::Resume::None;
    std::chrono::seconds queueSpan{60};

    /// Nothing when anything is missing or out of range; what is wrong then stands in `why`.
    static std::optional<Announcement> read(const QJsonObject& request, QString& why);
    QJsonObject write() const;
    /// The command for the node that has these speakers.
    QByteArray command(const QStringList& serials) const;
    /// The command that ends the broadcast on a node, for all its speakers or for these.
    static QByteArray endCommand(quint64 id, const QStringList& serials = {QLatin1String(Everybody)});

    zones::Order terms() const;
};

/// "interrupt", "queue", "skip" and "none", "start", "position".
std::optional<zones::WhenBusy> whenBusyOf(const QString& word);
std::optional<zones::Resume> resumeOf(const QString& word);
QStringList whenBusyWords();
QStringList resumeWords();
QString wordOf(zones::WhenBusy whenBusy);
QString wordOf(zones::Resume resume);
