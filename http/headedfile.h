#pragma once

#include <QByteArray>

struct MHD_Response;

/// A response of `head` and then `length` bytes of the file from `offset` on; it closes the descriptor. Null,
/// with the descriptor still open, when there is no memory.
MHD_Response* headedFileResponse(const QByteArray& head, int descriptor, qint64 offset, qint64 length);
