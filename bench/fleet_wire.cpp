#include "fleet_wire.h"

#include <array>
#include <cstdio>

namespace {

const std::string DeviceInformation =
    R"({"kind":1,"vol":20,"Mic_d":3,"Mic_e":3,"debug":0,"l_ip":"127.0.0.1","Date":"2026-11-21"})";

std::string volumeBytes(int round) {
    return {'V', static_cast<char>(1 + round % 25)};
}

std::string playBytes() {
    return std::string("A1") + PlayUrl;
}

bool startsWith(std::string_view bytes, std::string_view word) {
    return bytes.substr(0, word.size()) == word;
}

std::string hex(const std::string& raw) {
    std::string text;
    for (const char byte : raw) {
        std::array<char, 3> digits{};
        std::snprintf(digits.data(), digits.size(), "%02x", static_cast<unsigned char>(byte));
        text += digits.data();
    }
    return text;
}

// ---- MQTT ----

std::string mqttText(const std::string& text) {
    return std::string{static_cast<char>(text.size() >> 8), static_cast<char>(text.size())} + text;
}

std::string mqttPacket(int firstByte, const std::string& body) {
    std::string packet(1, static_cast<char>(firstByte));
    for (std::size_t length = body.size();; length >>= 7) {
        const bool more = length > 0x7f;
        packet += static_cast<char>((length & 0x7f) | (more ? 0x80U : 0U));
        if (!more)
            return packet + body;
    }
}

std::string mqttConnect(const std::string& client) {
    constexpr int KeepAliveSeconds = 10;
    return mqttPacket(0x10, mqttText("MQTT") + std::string("\4\2\0", 3) +
                                static_cast<char>(KeepAliveSeconds) + mqttText(client));
}

std::string mqttPublish(const std::string& topic, const std::string& payload) {
    return mqttPacket(0x30, mqttText(topic) + payload);
}

/// Length of the packet at the front of `bytes`, 0 while it is not there whole.
std::size_t mqttLength(std::string_view bytes) {
    std::size_t length = 0;
    for (std::size_t i = 1; i < bytes.size() && i < 5; ++i) {
        const auto byte = static_cast<unsigned char>(bytes[i]);
        length |= static_cast<std::size_t>(byte & 0x7f) << (7 * (i - 1));
        if ((byte & 0x80) == 0)
            return bytes.size() >= i + 1 + length ? i + 1 + length : 0;
    }
    return 0;
}

} // namespace

std::string jsonSerials(int count) {
    std::string serials;
    for (int i = 0; i < count; ++i)
        serials += (i == 0 ? "\"" : ",\"") + hex(SpeakerWire::rawSerial(i)) + '"';
    return serials;
}

SpeakerWire::SpeakerWire(int count)
    : m_serials(jsonSerials(count)) {}

std::string SpeakerWire::rawSerial(int index) {
    std::string raw(16, '\0');
    for (std::size_t i = 0; i < 4; ++i)
        raw[15 - i] = static_cast<char>((index + 1) >> (8 * i));
    return raw;
}

std::string SpeakerWire::greeting(int index) const {
    constexpr char Unread = '\0';
    constexpr char Volume = 20;
    return rawSerial(index) + Unread + Volume;
}

Wire::Step SpeakerWire::read(std::string_view bytes) const {
    static const std::string play = playBytes();
    static const std::string information = 'J' + DeviceInformation;
    const auto whole = [bytes](std::size_t length, Heard heard, const std::string& answer = {}) {
        return bytes.size() >= length ? Step{length, heard, answer} : Step{};
    };
    if (startsWith("OKOK", bytes.substr(0, 4)))
        return whole(4, Heard::Nothing);
    if (startsWith("JXXXXX", bytes.substr(0, 6)))
        return whole(6, Heard::Admitted, information);
    if (bytes[0] == 'V')
        return whole(2, Heard::Command);
    if (startsWith(play, bytes.substr(0, play.size())))
        return whole(play.size(), Heard::Command);
    return {bytes.size(), Heard::Nothing, {}};
}

std::string SpeakerWire::command(Command kind, int round) const {
    const std::string volume = std::to_string(1 + round % 25);
    const std::string rest = kind == Command::Volume
                                 ? R"("cmd":"VOL_S","vol":)" + volume + R"(,"vols":)" + volume
                                 : R"("cmd":"PLAYOFF","filelist":[")" + std::string(PlayUrl) + "\"]";
    const std::string json = "{" + rest + R"(,"snlist":[)" + m_serials + "]}";
    return std::to_string(json.size()) + '\n' + json;
}

std::string AnnouncementWire::command(Command /*kind*/, int /*round*/) const {
    const std::string body = R"({"targets":{"all":true},"play":[{"url":")" + std::string(PlayUrl) + R"("}]})";
    return "POST /api/v1/broadcasts HTTP/1.1\r\nHost: 127.0.0.1\r\nAuthorization: Bearer " + m_token +
           "\r\nContent-Type: application/json\r\nContent-Length: " + std::to_string(body.size()) +
           "\r\n\r\n" + body;
}

std::string RawWire::command(Command kind, int round) const {
    const std::string bytes = kind == Command::Volume ? volumeBytes(round) : playBytes();
    return static_cast<char>(bytes.size()) + bytes;
}

std::string MqttWire::greeting(int index) const {
    constexpr int Subscribe = 0x82;
    return mqttConnect("speaker" + std::to_string(index)) +
           mqttPacket(Subscribe, std::string("\0\1", 2) + mqttText("all") + std::string(1, '\0')) +
           mqttPublish("information/" + std::to_string(index), DeviceInformation);
}

Wire::Step MqttWire::read(std::string_view bytes) const {
    const std::size_t length = mqttLength(bytes);
    if (length == 0)
        return {};
    switch (static_cast<unsigned char>(bytes[0]) >> 4) {
    case 9: // SUBACK
        return {length, Heard::Admitted, {}};
    case 3: // PUBLISH
        return {length, Heard::Command, {}};
    default:
        return {length, Heard::Nothing, {}};
    }
}

std::string MqttWire::controllerGreeting() const {
    return mqttConnect("controller");
}

std::string MqttWire::command(Command kind, int round) const {
    return mqttPublish("all", kind == Command::Volume ? volumeBytes(round) : playBytes());
}
