#pragma once

#include "service/sounds.h"

#include <QString>
#include <QStringList>

// Speech made of texts, by a program. Any thread that may block: it takes about a second.

constexpr int SpeechBitrate = 128; ///< kbit/s

struct SpeechOrder {
    QString text;
    int volume;    ///< 0 to 100
    int speed;     ///< 0 to 100, 50 is normal
    QString voice; ///< one of voices(); any other stands for the one that fits the text
};

/// Not empty and not longer than about half an hour of speech.
bool canBeSpoken(const QString& text);
constexpr int LongestSpeech = 10000; ///< characters

StoreResult speakAndStore(sqlite& database, const FileStore& store, const SpeechOrder& order,
                          const AudioUpload& upload);

struct Voice {
    QString id;   ///< as an order names it
    QString name; ///< for people
    QString language;
};
/// The voices of the program by their ids, asked once and kept; empty when it can't be asked.
std::vector<Voice> voices();
