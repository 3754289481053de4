#pragma once

#include <string>

/// Requests in a closed loop: so many connections that each ask anew as soon as they have their answer.
struct AskOptions {
    int port = 0;
    std::string path;
    std::string token; ///< empty: none is shown
    int connections = 1;
    int seconds = 10;
};

/// Prints one line: requests per second, their times, answers other than 200. The exit status.
int ask(const AskOptions& options);
