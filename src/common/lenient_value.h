#pragma once

#include <QString>
#include <QVariant>
#include <QVariantMap>

namespace velocast {

// Values in control messages are read leniently: a number, a numeric string or a boolean
// all serve where an integer or a boolean is expected; anything else, and a missing key,
// reads as 0 / false. Fractions are truncated toward zero.
// True for the integer and floating-point QVariant types (not bool, not strings).
bool isNumberType(const QVariant &value);
qint64 lenientInt(const QVariant &value);
qint64 lenientInt(const QVariantMap &map, const QString &key);
double lenientDouble(const QVariant &value);
double lenientDouble(const QVariantMap &map, const QString &key);
bool lenientBool(const QVariant &value);
bool lenientBool(const QVariantMap &map, const QString &key);
// A string value as is; a number formatted in decimal; anything else an empty string.
QString lenientString(const QVariantMap &map, const QString &key);
// The "property" dictionary of a control message, or an empty map.
QVariantMap messageProperty(const QVariantMap &message);
// The "id" of a control message when it is a string, else an empty string.
QString messageId(const QVariant &message);

} // namespace velocast
