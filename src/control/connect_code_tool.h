#pragma once

#include <QString>
#include <QStringList>
#include <QVariant>

#include <functional>

namespace velocast {

// Turns the six-digit code a receiver shows into its IPv4 address and safe code.
//
// The code is a decimal number N < 2^20, read as 20 bits, most significant first:
//
//   19      16 15             8 7              0
//   +---------+----------------+----------------+
//   |  safe   |  third octet   |  fourth octet  |
//   +---------+----------------+----------------+
//
// The first two octets come from the sender's own address (same /16 network).
// Stateless: every operation is static and nothing is cached.
class ConnectCodeTool {
public:
    // (success, result): on success a QVariantMap {"ip": "a.b.c.d", "code": "0".."15"},
    // on failure the message text as a QString.
    using Block = std::function<void(bool success, const QVariant &result)>;

    // Calls block exactly once, synchronously, before returning.
    static void getConnectInfoWithSixCode(const QString &code, const QString &localIp, const Block &block);
    // The first and second dot-separated components of ip, each as 8 binary digits.
    static QStringList getIpCodeArrayWithIp(const QString &ip);
    // Exactly length characters "0"/"1", MSB first: the low bits of the string's integer value.
    static QString getBinaryStrWithDecimalStr(const QString &decimal, int length);
    // The value of a string of "0"/"1" characters, in decimal ("%ld").
    static QString getDecimalStrWithBinaryStr(const QString &binary);
    // Port for a two-character binary key ("00", "01", "10", "11"), else a null QString.
    static QString getPortStrWithPortCode(const QString &portCode);
};

// Failure texts of getConnectInfoWithSixCode.
inline const QString kCodeLengthError = QStringLiteral("输入位数不是6位");
inline const QString kIpFormatError = QStringLiteral("ip格式不正确");

} // namespace velocast
