#include "http/joblanes.h"

#include <algorithm>

bool LaneCounts::hasRoom(const JobLanes& lanes) const {
    return std::all_of(lanes.begin(), lanes.end(), [this](const JobLane& lane) {
        return m_counts.value(lane.name).running < lane.atOnce;
    });
}

bool LaneCounts::mayWait(const JobLanes& lanes) const {
    return std::all_of(lanes.begin(), lanes.end(), [this](const JobLane& lane) {
        return m_counts.value(lane.name).waiting < lane.waiting;
    });
}

int LaneCounts::running(const JobLanes& lanes) const {
    return lanes.empty() ? 0 : m_counts.value(lanes.back().name).running;
}

void LaneCounts::add(const JobLanes& lanes, int Count::*which, int jobs) {
    for (const JobLane& lane : lanes) {
        Count& count = m_counts[lane.name];
        count.*which += jobs;
        if (count.running == 0 && count.waiting == 0)
            m_counts.remove(lane.name);
    }
}
