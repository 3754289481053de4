#pragma once

/// The service from start to end: reads the configuration named by the first argument (default
/// "config.ini"), wires every object and runs the event loop; or one of the options that end at once. Returns
/// the exit status.
int runService(int argc, char** argv);
