#include "http/lateanswers.h"

LateAnswers::LateAnswers()
    : m_thread([this] { run(); }) {}

LateAnswers::~LateAnswers() {
    end();
}

void LateAnswers::add(std::chrono::milliseconds delay, std::function<void()> send) {
    const std::lock_guard lock(m_mutex);
    m_waiting.emplace(Clock::now() + delay, std::move(send));
    m_wake.notify_all();
}

void LateAnswers::end() {
    {
        const std::lock_guard lock(m_mutex);
        m_ending = true;
    }
    m_wake.notify_all();
    if (m_thread.joinable())
        m_thread.join();
}

void LateAnswers::run() {
    std::unique_lock lock(m_mutex);
    while (!m_ending || !m_waiting.empty()) {
        if (m_waiting.empty()) {
            m_wake.wait(lock);
        } else if (const auto due = m_waiting.begin()->first; !m_ending && Clock::now() < due) {
            m_wake.wait_until(lock, due);
        } else {
            const auto answer = m_waiting.extract(m_waiting.begin());
            lock.unlock();
            answer.mapped()();
            lock.lock();
        }
    }
}
