#include "control_framing.h"

#include <QJsonDocument>
#include <QJsonParseError>

#include <cmath>
#include <cstring>
#include <limits>

namespace velocast::receiver {

MessageFramer::MessageFramer(qsizetype maxMessageBytes) : max_(maxMessageBytes > 0 ? maxMessageBytes : 1) {}

static bool isBlank(const QByteArray &piece)
{
    for (char c : piece)
        if (c != ' ' && c != '\n' && c != '\r' && c != '\t') return false;
    return true;
}

QList<QByteArray> MessageFramer::feed(const QByteArray &bytes)
{
    QList<QByteArray> out;
    const char *p = bytes.constData();
    qsizetype left = bytes.size();
    while (left > 0) {
        const void *hash = std::memchr(p, '#', size_t(left));
        const qsizetype chunk = hash ? static_cast<const char *>(hash) - p : left;
        append(p, chunk);
        if (!hash) break;
        // End of one message.
        if (discarding_) {
            discarding_ = false;
        } else if (!isBlank(buffer_)) {
            out.append(buffer_);
        }
        buffer_.clear();
        p += chunk + 1;
        left -= chunk + 1;
    }
    return out;
}

void MessageFramer::append(const char *data, qsizetype size)
{
    if (discarding_ || size == 0) return;
    if (buffer_.size() + size > max_) {
        // Too long for a control message: drop what we have and skip to the next '#'.
        buffer_.clear();
        discarding_ = true;
        ++oversized_;
        return;
    }
    buffer_.append(data, size);
}

QByteArray MessageFramer::takePending()
{
    QByteArray pending;
    pending.swap(buffer_);
    discarding_ = false;
    return pending;
}

bool isValidUtf8(const QByteArray &bytes)
{
    const auto *s = reinterpret_cast<const unsigned char *>(bytes.constData());
    const qsizetype n = bytes.size();
    qsizetype i = 0;
    while (i < n) {
        const unsigned char c = s[i];
        if (c < 0x80) {
            ++i;
            continue;
        }
        int extra;
        uint32_t cp;
        uint32_t min;
        if ((c & 0xE0) == 0xC0) {
            extra = 1, cp = c & 0x1F, min = 0x80;
        } else if ((c & 0xF0) == 0xE0) {
            extra = 2, cp = c & 0x0F, min = 0x800;
        } else if ((c & 0xF8) == 0xF0) {
            extra = 3, cp = c & 0x07, min = 0x10000;
        } else {
            return false; // continuation byte without a lead, or 0xF8..0xFF
        }
        if (n - i <= extra) return false; // cut sequence
        for (int k = 1; k <= extra; ++k) {
            const unsigned char cc = s[i + k];
            if ((cc & 0xC0) != 0x80) return false;
            cp = (cp << 6) | (cc & 0x3F);
        }
        if (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return false;
        i += extra + 1;
    }
    return true;
}

const char *parseErrorName(ParseError error)
{
    switch (error) {
    case ParseError::None: return "none";
    case ParseError::BadUtf8: return "bad_utf8";
    case ParseError::BadJson: return "bad_json";
    case ParseError::NotAnObject: return "not_an_object";
    case ParseError::MissingId: return "missing_id";
    }
    return "unknown";
}

ParseResult parseMessage(const QByteArray &piece)
{
    ParseResult result;
    if (!isValidUtf8(piece)) {
        result.error = ParseError::BadUtf8;
        return result;
    }
    QJsonParseError err{};
    const QJsonDocument doc = QJsonDocument::fromJson(piece, &err);
    if (err.error != QJsonParseError::NoError) {
        result.error = ParseError::BadJson;
        return result;
    }
    if (!doc.isObject()) {
        result.error = ParseError::NotAnObject;
        return result;
    }
    const QJsonObject obj = doc.object();
    const QJsonValue id = obj.value(QStringLiteral("id"));
    if (!id.isString()) {
        result.error = ParseError::MissingId;
        return result;
    }
    result.message.id = id.toString();
    result.message.property = obj.value(QStringLiteral("property")).toObject();
    result.message.raw = obj;
    return result;
}

static qint64 saturate(double d)
{
    if (std::isnan(d)) return 0;
    if (d >= 9.2e18) return std::numeric_limits<qint64>::max();
    if (d <= -9.2e18) return std::numeric_limits<qint64>::min();
    return qint64(std::trunc(d));
}

qint64 lenientInt(const QJsonValue &value)
{
    switch (value.type()) {
    case QJsonValue::Double: return saturate(value.toDouble());
    case QJsonValue::Bool: return value.toBool() ? 1 : 0;
    case QJsonValue::String: {
        const QString s = value.toString().trimmed();
        bool ok = false;
        const qint64 i = s.toLongLong(&ok);
        if (ok) return i;
        const double d = s.toDouble(&ok);
        return ok ? saturate(d) : 0;
    }
    default: return 0;
    }
}

qint64 lenientInt(const QJsonObject &object, const QString &key) { return lenientInt(object.value(key)); }

bool lenientBool(const QJsonValue &value)
{
    if (value.isBool()) return value.toBool();
    if (value.isString()) {
        const QString s = value.toString().trimmed().toLower();
        if (s == QLatin1String("true") || s == QLatin1String("yes")) return true;
    }
    return lenientInt(value) != 0;
}

QString lenientString(const QJsonObject &object, const QString &key)
{
    const QJsonValue v = object.value(key);
    if (v.isString()) return v.toString();
    if (v.isDouble()) return QString::number(v.toDouble(), 'g', 17);
    return {};
}

QByteArray frameMessage(const QString &id, const QJsonObject &property)
{
    QJsonObject obj;
    obj.insert(QStringLiteral("id"), id);
    obj.insert(QStringLiteral("property"), property);
    QByteArray bytes = QJsonDocument(obj).toJson(QJsonDocument::Compact);
    // '#' can only stand inside a string here; the peer would cut the message at it.
    if (bytes.contains('#') || bytes.size() + 1 >= kMaxOutgoingBytes) return {};
    bytes.append('#');
    return bytes;
}

} // namespace velocast::receiver
