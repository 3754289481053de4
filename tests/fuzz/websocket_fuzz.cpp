// What the WebSocket front reads of a client: the first byte chooses between handshake and frames, the second
// is the size of the pieces in which frames arrive.
#include "fronts/websocketframes.h"
#include "fronts/websockethandshake.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>

namespace {

constexpr int MaxMessage = 1000;

void fuzzFrames(std::string_view bytes, std::size_t piece) {
    websocket::FrameReader reader(MaxMessage);
    while (!bytes.empty()) {
        std::string_view part = bytes.substr(0, piece);
        bytes.remove_prefix(part.size());
        while (!part.empty()) {
            const websocket::Event event = reader.read(part);
            if (event.payload.size() > MaxMessage)
                std::abort();
            if (event.kind == websocket::Event::Kind::Error)
                return;
        }
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 2)
        return 0;
    const std::string_view bytes(reinterpret_cast<const char*>(data) + 2, size - 2);
    if (data[0] % 2 == 0)
        fuzzFrames(bytes, std::max<std::size_t>(1, data[1]));
    else
        websocket::answerHandshake(QByteArray(bytes.data(), static_cast<int>(bytes.size())),
                                   {QStringLiteral("pages.example")});
    return 0;
}
