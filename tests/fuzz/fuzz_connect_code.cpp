// The typed connect code against a few own addresses.
#include "control/connect_code_tool.h"


extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QString text = QString::fromUtf8(reinterpret_cast<const char *>(data), qsizetype(size));
    // The first line is the code, the rest (if any) the own address.
    const qsizetype cut = text.indexOf(u'\n');
    const QString code = cut < 0 ? text : text.left(cut);
    const QString own = cut < 0 ? QStringLiteral("192.168.1.20") : text.mid(cut + 1);
    int calls = 0;
    velocast::ConnectCodeTool::getConnectInfoWithSixCode(code, own, [&](bool, const QVariant &) { ++calls; });
    if (calls != 1) __builtin_trap();
    (void)velocast::ConnectCodeTool::getIpCodeArrayWithIp(own);
    (void)velocast::ConnectCodeTool::getPortStrWithPortCode(code.left(2));
    return 0;
}
