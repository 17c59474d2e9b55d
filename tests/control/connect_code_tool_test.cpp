#include "control/connect_code_tool.h"

#include <gtest/gtest.h>

using velocast::ConnectCodeTool;

namespace {

// Each code decodes synchronously, exactly once, to the receiver's address and safe code or to the error text.
TEST(ConnectCodeTool, DecodesSixDigitCodes)
{
    const struct {
        const char *code;
        const char *localIp;
        bool ok;
        const char *ipOrMessage;
        const char *safeCode;
    } cases[] = {
        {"000000", "192.168.1.20", true, "192.168.0.0", "0"},
        {"999999", "10.0.5.7", true, "10.0.66.63", "15"}, // 1111 01000010 00111111
        {"065793", "172.16.3.4", true, "172.16.1.1", "1"}, // 1*65536 + 1*256 + 1
        {"641041", "192.168.1.2", true, "192.168.200.17", "9"}, // 9*65536 + 200*256 + 17
        // own octets above 255 wrap to their low 8 bits; non-numeric ones count as 0
        {"000258", "300.x.1.1", true, "44.0.1.2", "0"},
        // the length check comes first, even with a bad address
        {"12345", "", false, "输入位数不是6位", nullptr},
        {"1234567", "nodots", false, "输入位数不是6位", nullptr},
        {"", "1.2.3.4", false, "输入位数不是6位", nullptr},
        {"123456", "", false, "ip格式不正确", nullptr},
        {"123456", "localhost", false, "ip格式不正确", nullptr},
        {"123456", "1234567890.123456", false, "ip格式不正确", nullptr},
        {"000001", "123456789.123456", true, "21.64.0.1", "0"}, // 16 characters is still accepted
        {"12ab56", "10.1.2.3", true, "10.1.0.12", "0"}, // non-digits are not checked here: "12ab56" reads as 12
        {"一二三四五六", "10.1.2.3", true, "10.1.0.0", "0"}, // six Chinese characters are six characters
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.code);
        int calls = 0;
        QVariant result;
        ConnectCodeTool::getConnectInfoWithSixCode(QString::fromUtf8(c.code), QString::fromUtf8(c.localIp),
            [&](bool success, const QVariant &r) {
                ++calls;
                EXPECT_EQ(success, c.ok);
                result = r;
            });
        ASSERT_EQ(calls, 1);
        if (c.ok)
            EXPECT_EQ(result.toMap(), (QVariantMap{{"ip", QString::fromUtf8(c.ipOrMessage)}, {"code", QString::fromUtf8(c.safeCode)}}));
        else
            EXPECT_EQ(result.toString(), QString::fromUtf8(c.ipOrMessage));
    }
}

} // namespace
