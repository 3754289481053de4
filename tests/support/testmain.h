#pragma once

#include "core/loop/eventdispatcher.h"

#include <QCoreApplication>
#include <QtTest>

/// Runs a test class on the event loop that the service runs on. For a test's main():
///     int main(int argc, char** argv) { return runTest<SettingsTest>(argc, argv); }
template<typename Test>
int runTest(int argc, char** argv) {
    QCoreApplication::setEventDispatcher(new EpollEventDispatcher); // the application owns it
    QCoreApplication application(argc, argv);
    Test test;
    return QTest::qExec(&test, argc, argv);
}
