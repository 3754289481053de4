#pragma once

#include <QByteArray>
#include <QHash>
#include <vector>

/// A limit that a job shares with others of the same lane: so many may run at once, and so many more wait.
struct JobLane {
    QByteArray name;
    int atOnce;
    int waiting;
};
using JobLanes = std::vector<JobLane>; ///< of one job; none: it runs as soon as there is a worker

/// Who runs and who waits in each lane. Not thread-safe.
class LaneCounts {
public:
    bool hasRoom(const JobLanes& lanes) const; ///< to run
    bool mayWait(const JobLanes& lanes) const;
    /// Jobs that run in the narrowest, the last, of the lanes: who has fewer goes first.
    int running(const JobLanes& lanes) const;

    void begin(const JobLanes& lanes) { add(lanes, &Count::running, 1); }
    void end(const JobLanes& lanes) { add(lanes, &Count::running, -1); }
    void wait(const JobLanes& lanes) { add(lanes, &Count::waiting, 1); }
    void waited(const JobLanes& lanes) { add(lanes, &Count::waiting, -1); }

private:
    struct Count {
        int running = 0;
        int waiting = 0;
    };
    void add(const JobLanes& lanes, int Count::*which, int jobs);
    QHash<QByteArray, Count> m_counts; ///< lanes that anybody is in
};
