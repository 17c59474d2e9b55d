#include "connect_code.h"

#include <QNetworkInterface>

namespace velocast::receiver {

std::optional<QString> connectCode(const QHostAddress &address, int safeCode)
{
    bool ok = false;
    const quint32 ip = address.toIPv4Address(&ok);
    if (!ok || safeCode < 0 || safeCode > 15) return std::nullopt;
    const quint32 n = quint32(safeCode) * 65536u + ((ip >> 8) & 0xFF) * 256u + (ip & 0xFF);
    if (n > 999999u) return std::nullopt;
    return QStringLiteral("%1").arg(n, 6, 10, QLatin1Char('0'));
}

int largestSafeCode(const QHostAddress &address)
{
    for (int s = 15; s >= 0; --s)
        if (connectCode(address, s)) return s;
    return -1;
}

QHostAddress primaryIpv4Address()
{
    const auto interfaces = QNetworkInterface::allInterfaces();
    for (const QNetworkInterface &iface : interfaces) {
        const auto flags = iface.flags();
        if (!(flags & QNetworkInterface::IsUp) || !(flags & QNetworkInterface::IsRunning)
            || (flags & QNetworkInterface::IsLoopBack))
            continue;
        for (const QNetworkAddressEntry &entry : iface.addressEntries()) {
            const QHostAddress ip = entry.ip();
            if (ip.protocol() == QAbstractSocket::IPv4Protocol && !ip.isLoopback()) return ip;
        }
    }
    return QHostAddress(QHostAddress::LocalHost);
}

} // namespace velocast::receiver
