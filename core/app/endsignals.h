#pragma once

#include <QObject>

/// Turns SIGTERM and SIGINT into an orderly end: the event loop is left with status 0, also when the
/// signal comes before the loop runs. SIGPIPE is ignored. One object for the process; main loop.
class EndSignals : public QObject {
    Q_OBJECT
public:
    /// After the application object, before anything that takes time.
    explicit EndSignals(QObject* parent = nullptr);
    ~EndSignals() override;

private:
    int m_event;
};
