#include "common/lenient_value.h"

#include <cmath>
#include <limits>

namespace velocast {

bool isNumberType(const QVariant &value)
{
    switch (value.typeId()) {
    case QMetaType::Int:
    case QMetaType::UInt:
    case QMetaType::LongLong:
    case QMetaType::ULongLong:
    case QMetaType::Long:
    case QMetaType::ULong:
    case QMetaType::Short:
    case QMetaType::UShort:
    case QMetaType::Double:
    case QMetaType::Float:
        return true;
    default:
        return false;
    }
}

double lenientDouble(const QVariant &value)
{
    if (isNumberType(value)) return value.toDouble();
    switch (value.typeId()) {
    case QMetaType::Bool:
        return value.toBool() ? 1.0 : 0.0;
    case QMetaType::QString: {
        // Like a C number scan: leading blanks skipped, the longest numeric prefix taken
        // (locale-independent), nothing numeric gives 0.
        const QByteArray s = value.toString().trimmed().toLatin1();
        qsizetype i = 0;
        const auto digits = [&] {
            const qsizetype from = i;
            while (i < s.size() && s[i] >= '0' && s[i] <= '9') ++i;
            return i > from;
        };
        if (i < s.size() && (s[i] == '+' || s[i] == '-')) ++i;
        bool any = digits();
        if (i < s.size() && s[i] == '.') {
            ++i;
            any = digits() || any;
        }
        if (!any) return 0.0;
        if (i < s.size() && (s[i] == 'e' || s[i] == 'E')) {
            const qsizetype mark = i++;
            if (i < s.size() && (s[i] == '+' || s[i] == '-')) ++i;
            if (!digits()) i = mark;
        }
        bool ok = false;
        const double d = s.left(i).toDouble(&ok);
        return ok && std::isfinite(d) ? d : 0.0;
    }
    default:
        return 0.0;
    }
}

double lenientDouble(const QVariantMap &map, const QString &key) { return lenientDouble(map.value(key)); }

qint64 lenientInt(const QVariant &value)
{
    if (value.typeId() == QMetaType::LongLong) return value.toLongLong();
    if (value.typeId() == QMetaType::QString) {
        bool ok = false;
        const qint64 i = value.toString().trimmed().toLongLong(&ok);
        if (ok) return i;
    }
    const double d = lenientDouble(value);
    if (d >= 9.2e18) return std::numeric_limits<qint64>::max();
    if (d <= -9.2e18) return std::numeric_limits<qint64>::min();
    return static_cast<qint64>(d);
}

qint64 lenientInt(const QVariantMap &map, const QString &key) { return lenientInt(map.value(key)); }

bool lenientBool(const QVariant &value)
{
    if (value.typeId() == QMetaType::QString) {
        const QString s = value.toString().trimmed().toLower();
        if (s == QLatin1String("true") || s == QLatin1String("yes")) return true;
    }
    return lenientDouble(value) != 0.0;
}

bool lenientBool(const QVariantMap &map, const QString &key) { return lenientBool(map.value(key)); }

QString lenientString(const QVariantMap &map, const QString &key)
{
    const QVariant v = map.value(key);
    if (v.typeId() == QMetaType::QString) return v.toString();
    switch (v.typeId()) {
    case QMetaType::Int:
    case QMetaType::UInt:
    case QMetaType::LongLong:
    case QMetaType::ULongLong:
    case QMetaType::Double:
        return QString::number(lenientInt(v));
    default:
        return {};
    }
}

QVariantMap messageProperty(const QVariantMap &message)
{
    const QVariant p = message.value(QStringLiteral("property"));
    return p.typeId() == QMetaType::QVariantMap ? p.toMap() : QVariantMap();
}

QString messageId(const QVariant &message)
{
    if (message.typeId() != QMetaType::QVariantMap) return {};
    const QVariant id = message.toMap().value(QStringLiteral("id"));
    return id.typeId() == QMetaType::QString ? id.toString() : QString();
}

} // namespace velocast
