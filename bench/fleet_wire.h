#pragma once

#include "fleet_load.h"

#include <utility>

/// Address that play commands carry.
inline constexpr const char* PlayUrl = "http://127.0.0.1:12080/music/school-bell-0123456789.mp3";

/// Serials of a fleet as the entries of a JSON array.
std::string jsonSerials(int count);

/// The speakers' own protocol, commands through the command server.
class SpeakerWire : public Wire {
public:
    explicit SpeakerWire(int count);
    std::string greeting(int index) const override;
    std::string beat() const override { return std::string("\0\0\0\1", 4); }
    Step read(std::string_view bytes) const override;
    std::string controllerGreeting() const override { return {}; }
    std::string command(Command kind, int round) const override;

    static std::string rawSerial(int index);

private:
    std::string m_serials; ///< JSON array of the whole fleet
};

/// The speakers' own protocol; the controller is a client of the interface v1, and every command an
/// announcement to all that the token's account may play to.
class AnnouncementWire : public SpeakerWire {
public:
    explicit AnnouncementWire(std::string token)
        : SpeakerWire(0)
        , m_token(std::move(token)) {}
    std::string command(Command kind, int round) const override;

private:
    std::string m_token;
};

/// The same bytes to and from the bare server of fleet_rawserver.h.
class RawWire : public SpeakerWire {
public:
    RawWire()
        : SpeakerWire(0) {}
    std::string controllerGreeting() const override { return "CTRL"; }
    std::string command(Command kind, int round) const override;
};

/// The same work over MQTT 3.1.1, quality of service 0: every speaker subscribes to one topic.
class MqttWire : public Wire {
public:
    std::string greeting(int index) const override;
    std::string beat() const override { return std::string("\xc0\0", 2); }
    Step read(std::string_view bytes) const override;
    std::string controllerGreeting() const override;
    std::string command(Command kind, int round) const override;
};
