#include "control/connect_code_tool.h"

#include <QVariantMap>

#include <limits>

namespace velocast {

namespace {
// Integer value of a string the way the code reads it: leading blanks skipped, an optional
// sign, digits up to the first non-digit; nothing numeric gives 0. Saturates instead of
// overflowing.
qint64 integerValue(const QString &s)
{
    qsizetype i = 0;
    while (i < s.size() && s[i].isSpace()) ++i;
    bool negative = false;
    if (i < s.size() && (s[i] == u'+' || s[i] == u'-')) negative = s[i++] == u'-';
    qint64 v = 0;
    constexpr qint64 kMax = std::numeric_limits<qint64>::max();
    for (; i < s.size() && s[i] >= u'0' && s[i] <= u'9'; ++i) {
        const int d = s[i].unicode() - u'0';
        if (v > (kMax - d) / 10) {
            v = kMax;
            break;
        }
        v = v * 10 + d;
    }
    return negative ? -v : v;
}
} // namespace

QString ConnectCodeTool::getBinaryStrWithDecimalStr(const QString &decimal, int length)
{
    qint64 value = integerValue(decimal);
    QString out(qMax(length, 0), u'0');
    for (int i = length - 1; i >= 0; --i) {
        if (value % 2 != 0) out[i] = u'1';
        value /= 2;
    }
    return out;
}

QString ConnectCodeTool::getDecimalStrWithBinaryStr(const QString &binary)
{
    // Bits beyond 62 would not fit the signed result; they are ignored.
    qint64 sum = 0;
    for (qsizetype i = binary.size() - 1, bit = 0; i >= 0; --i, ++bit) {
        if (binary[i] == u'1' && bit < 63) sum += qint64(1) << bit;
    }
    return QString::number(sum);
}

QStringList ConnectCodeTool::getIpCodeArrayWithIp(const QString &ip)
{
    const QStringList parts = ip.split(u'.');
    const QString first = parts.value(0);
    const QString second = parts.value(1);
    return {getBinaryStrWithDecimalStr(first, 8), getBinaryStrWithDecimalStr(second, 8)};
}

QString ConnectCodeTool::getPortStrWithPortCode(const QString &portCode)
{
    if (portCode == QLatin1String("00")) return QStringLiteral("11010");
    if (portCode == QLatin1String("01")) return QStringLiteral("11013");
    if (portCode == QLatin1String("10")) return QStringLiteral("11015");
    if (portCode == QLatin1String("11")) return QStringLiteral("11017");
    return QString();
}

void ConnectCodeTool::getConnectInfoWithSixCode(const QString &code, const QString &localIp, const Block &block)
{
    if (!block) return;
    if (code.size() != 6) {
        block(false, kCodeLengthError);
        return;
    }
    // A dotted IPv4 string is at most 15 characters; anything from 17 on is refused.
    if (!localIp.contains(u'.') || localIp.size() >= 17) {
        block(false, kIpFormatError);
        return;
    }
    const QString bits = getBinaryStrWithDecimalStr(code, 20);
    const QString safeCode = getDecimalStrWithBinaryStr(bits.mid(0, 4));
    const QString third = getDecimalStrWithBinaryStr(bits.mid(4, 8));
    const QString fourth = getDecimalStrWithBinaryStr(bits.mid(12, 8));

    const QStringList ownBits = getIpCodeArrayWithIp(localIp);
    const QString first = getDecimalStrWithBinaryStr(ownBits.value(0));
    const QString second = getDecimalStrWithBinaryStr(ownBits.value(1));
    const QString address = QStringLiteral("%1.%2.%3.%4").arg(first, second, third, fourth);

    if (safeCode.isEmpty() || address.isEmpty()) {
        block(false, kIpFormatError);
        return;
    }
    block(true, QVariantMap{{QStringLiteral("ip"), address}, {QStringLiteral("code"), safeCode}});
}

} // namespace velocast
