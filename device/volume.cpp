#include "device/volume.h"

#include <algorithm>
#include <array>

namespace {
// Level 1 first. The uneven steps follow the amplifier's attenuation and are part of the protocol.
constexpr std::array<unsigned char, 25> Codes{112, 101, 90, 88, 85, 79, 74, 69, 64, 59, 56, 52, 47,
                                              43,  41,  38, 35, 31, 29, 26, 24, 22, 20, 18, 16};
constexpr unsigned char CodeOfNoLevel = 31;
constexpr unsigned char LevelOfNoCode = 18;
} // namespace

unsigned char volumeCode(unsigned char level) {
    return level >= 1 && level <= Codes.size() ? Codes.at(level - 1U) : CodeOfNoLevel;
}

unsigned char volumeLevel(unsigned char code) {
    const auto* const found = std::find(Codes.begin(), Codes.end(), code);
    return found == Codes.end() ? LevelOfNoCode : static_cast<unsigned char>(found - Codes.begin() + 1);
}
