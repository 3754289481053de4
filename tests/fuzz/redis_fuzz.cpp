// What a Redis server sends. The first byte is the size of the pieces in which it arrives.
#include "redis/flatreply.h"

#include <cstdint>
#include <cstdlib>
#include <vector>

namespace {

std::vector<QStringList> repliesOf(const QByteArray& bytes, int piece, bool& broken) {
    ReplyStream stream;
    std::vector<QStringList> replies;
    for (int at = 0; at < bytes.size(); at += piece) {
        stream.append(bytes.mid(at, piece));
        for (auto next = stream.next(); next.status != ReplyStream::Status::NeedMore; next = stream.next()) {
            broken = next.status == ReplyStream::Status::Broken;
            if (broken)
                return replies;
            replies.push_back(next.reply);
        }
    }
    return replies;
}

} // namespace

/// However the bytes are cut, the replies are the same.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2)
        return 0;
    const QByteArray bytes(reinterpret_cast<const char*>(data) + 1, static_cast<int>(size) - 1);
    bool brokenWhole = false;
    bool brokenInPieces = false;
    const auto whole = repliesOf(bytes, bytes.size(), brokenWhole);
    const auto inPieces = repliesOf(bytes, 1 + data[0] % 16, brokenInPieces);
    if (whole != inPieces || brokenWhole != brokenInPieces)
        std::abort();
    flatReplyOfChunk(QString::fromUtf8(bytes));
    return 0;
}
