// Control channel of the receiver side: "#"-framed JSON text over TCP.
//
// The peer writes each message as UTF-8 JSON followed by one '#'. TCP may split a
// message over several reads or put several messages into one read, so the receiver
// keeps the bytes after the last '#' until the next one arrives. A '#' is never escaped:
// a '#' inside a string value splits that message in two (both halves then fail to parse).
#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QList>
#include <QString>

namespace velocast::receiver {

// Cuts a byte stream into the pieces between '#' characters.
// Not thread-safe; one framer per connection.
class MessageFramer {
public:
    // maxMessageBytes: a piece longer than this is dropped whole (counted once), and the
    // framer skips to the next '#'. The buffer never holds more than this many bytes.
    explicit MessageFramer(qsizetype maxMessageBytes = 64 * 1024);

    // Appends bytes from one read and returns the complete pieces, in order. Pieces that
    // hold only white space are dropped (a pretty-printer's trailing newline, for example).
    QList<QByteArray> feed(const QByteArray &bytes);

    // Bytes waiting for their '#'. At the end of the stream they are an unterminated message.
    qsizetype pendingBytes() const { return buffer_.size(); }
    QByteArray takePending();
    // Messages dropped because they exceeded the cap (each counted once).
    int oversizedCount() const { return oversized_; }
    qsizetype maxMessageBytes() const { return max_; }

private:
    void append(const char *data, qsizetype size);

    qsizetype max_;
    QByteArray buffer_;
    bool discarding_ = false; // inside an oversized message, waiting for its '#'
    int oversized_ = 0;
};

// True when the bytes are well-formed UTF-8: no overlong forms, no surrogates, nothing
// above U+10FFFF, no cut sequence.
bool isValidUtf8(const QByteArray &bytes);

enum class ParseError { None, BadUtf8, BadJson, NotAnObject, MissingId };
const char *parseErrorName(ParseError error);

struct ControlMessage {
    QString id;
    QJsonObject property; // empty when the message has none or it is not an object
    QJsonObject raw;      // the whole object as received
};

struct ParseResult {
    ParseError error = ParseError::None;
    ControlMessage message;
    bool ok() const { return error == ParseError::None; }
};

// Parses one piece from the framer. A message needs a string "id"; "property" is optional
// ("from", "to" and "uuid" are kept in raw but not interpreted).
ParseResult parseMessage(const QByteArray &piece);

// Lenient readers: a number, a numeric string or a boolean all serve; anything else and a
// missing key read as 0 / false. Fractions are truncated toward zero; values beyond the
// 64-bit range saturate.
qint64 lenientInt(const QJsonValue &value);
qint64 lenientInt(const QJsonObject &object, const QString &key);
bool lenientBool(const QJsonValue &value);
QString lenientString(const QJsonObject &object, const QString &key);

// Every message this receiver sends is one compact JSON object {"id", "property"}
// followed by '#', well under this size, written in one write.
inline constexpr qsizetype kMaxOutgoingBytes = 1000;

// Frames a message. Returns an empty array when the result would be kMaxOutgoingBytes
// or longer, or when a string in it contains '#' (the peer would cut the message there).
QByteArray frameMessage(const QString &id, const QJsonObject &property);

} // namespace velocast::receiver
