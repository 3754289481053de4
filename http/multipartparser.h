#pragma once

#include <QByteArray>

/// Reads a multipart/form-data body (RFC 7578) piece by piece, as it arrives in any division, and
/// hands the parts on. Holds at most one boundary and one part head, whatever the body's size.
class MultipartParser {
public:
    /// Receives the parts. Each returns the HTTP status to refuse with, 0 to go on.
    class Sink {
    public:
        virtual int partBegins(const QByteArray& name, bool isFile, const QByteArray& fileName) = 0;
        virtual int partData(const char* data, int size) = 0;
        virtual int partEnds() = 0;

    protected:
        ~Sink() = default;
    };

    static constexpr int MaxPartHead = 4096; ///< a field name, a file name and a content type
    static constexpr int MaxParts = 1000;    ///< see MaxFormFields
    static constexpr int MaxBoundary = 70;   ///< RFC 2046, section 5.1.1

    /// Boundary of a Content-Type value; empty when it has none or not a legal one.
    static QByteArray boundaryOf(const QByteArray& contentType);

    MultipartParser(const QByteArray& boundary, Sink* sink);

    /// Takes the next piece of the body. 0, 400 when it is malformed, or what the sink returned;
    /// after anything but 0 the parser must not be used any more.
    int feed(const char* data, int size);
    /// True once the closing boundary was read.
    bool isComplete() const { return m_state == State::Epilogue; }

private:
    enum class State { Preamble, AfterBoundary, PartHead, PartData, Epilogue };
    int step(bool* wantsMore);
    int skipPreamble(bool* wantsMore);
    int readAfterBoundary(bool* wantsMore);
    int readPartHead(bool* wantsMore);
    int readPartData(bool* wantsMore);
    int beginPart(const QByteArray& head);

    QByteArray m_delimiter; ///< "\r\n--" and the boundary
    Sink* m_sink;
    QByteArray m_buffer; ///< read but not yet understood
    State m_state = State::Preamble;
    int m_parts = 0;
};
