#pragma once

#include "fleet_load.h"

/// Figures of one stream to many.
struct MediaFigures {
    double cpuPercent = 0;   ///< of the server, of one core
    double worstGapMs = 0;   ///< longest time in which any listener got nothing
    int starved = 0;         ///< listeners that got less than nine tenths of the stream
    double heardPercent = 0; ///< of the stream, on average
    double kilobytes = 0;    ///< resident memory of the server per listener
};

/// Many who hear one stream of 128 kbit/s.
class MediaFleet {
public:
    struct Options {
        int count = 1000;
        std::uint16_t port = 0;
        std::uint16_t controllerPort = 0; ///< only for speakers
        std::string path;                 ///< alarm file or mount point
        pid_t server = 0;
        std::chrono::seconds window{20};
    };

    explicit MediaFleet(Options options);
    ~MediaFleet();
    /// Speakers that register, are told to play an alarm file, connect for its data and ask for each chunk.
    MediaFigures runSpeakers();
    /// Listeners of a streaming server, over HTTP.
    MediaFigures runListeners();

private:
    struct Listener {
        int control = -1;
        int data = -1;
        bool admitted = false;
        bool controlGreeted = false; ///< the first bytes are sent
        bool dataGreeted = false;
        std::int64_t bytes = 0;
        Clock::time_point last;
        Clock::duration worstGap{};
    };

    void open(int& fd, int index, std::uint16_t port, bool isData);
    void turn();
    void runUntil(const std::function<bool()>& done, const char* what);
    void runFor(std::chrono::milliseconds duration);
    void readControl(Listener& listener, int index);
    void readData(Listener& listener);
    void takeCommand(Listener& listener, int index, std::string_view bytes);
    MediaFigures measure(long residentBefore);

    Options m_options;
    int m_epoll;
    std::vector<Listener> m_listeners;
    bool m_asksForChunks = false;
    int m_admitted = 0;
    int m_hearing = 0;
};

/// Feeds a file to a streaming server at 128 kbit/s, again and again; ends when the server does.
int runStreamSource(std::uint16_t port, const std::string& file);
