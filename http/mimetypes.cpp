#include "http/mimetypes.h"

namespace {

struct MimeType {
    const char* suffix;
    const char* type;
    bool isText;
};

constexpr MimeType MimeTypes[] = {
    {"mp3", "audio/mpeg", false},       {"wav", "audio/wav", false},
    {"ogg", "audio/ogg", false},        {"oga", "audio/ogg", false},
    {"opus", "audio/ogg", false},       {"m4a", "audio/mp4", false},
    {"aac", "audio/aac", false},        {"flac", "audio/flac", false},
    {"m3u", "audio/x-mpegurl", false},  {"m3u8", "application/vnd.apple.mpegurl", false},
    {"html", "text/html", true},        {"htm", "text/html", true},
    {"css", "text/css", true},          {"js", "text/javascript", true},
    {"mjs", "text/javascript", true},   {"txt", "text/plain", true},
    {"md", "text/markdown", true},      {"csv", "text/csv", true},
    {"xml", "text/xml", true},          {"json", "application/json", false},
    {"map", "application/json", false}, {"wasm", "application/wasm", false},
    {"pdf", "application/pdf", false},  {"zip", "application/zip", false},
    {"gz", "application/gzip", false},  {"apk", "application/vnd.android.package-archive", false},
    {"png", "image/png", false},        {"jpg", "image/jpeg", false},
    {"jpeg", "image/jpeg", false},      {"gif", "image/gif", false},
    {"webp", "image/webp", false},      {"svg", "image/svg+xml", false},
    {"ico", "image/x-icon", false},     {"bmp", "image/bmp", false},
    {"woff", "font/woff", false},       {"woff2", "font/woff2", false},
    {"ttf", "font/ttf", false},         {"mp4", "video/mp4", false},
    {"webm", "video/webm", false},
};

} // namespace

QByteArray mimeType(const QByteArray& fileName, const QByteArray& encoding) {
    const QByteArray suffix = fileName.mid(fileName.lastIndexOf('.') + 1).toLower();
    for (const MimeType& known : MimeTypes) {
        if (suffix == known.suffix)
            return known.isText ? QByteArray(known.type) + "; charset=" + encoding : QByteArray(known.type);
    }
    return QByteArrayLiteral("application/octet-stream");
}
