#pragma once

#include <cstdint>

/// The limit: a server of nothing but epoll that admits speakers, answers their registration, writes
/// "OKOK" to each every 5 s, ticks for each every 2 s and hands a controller's commands to all. Listens
/// on loopback; runs until it is killed.
int runRawServer(std::uint16_t port);
