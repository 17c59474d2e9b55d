// Taking in TCP connections on the receiver's servers: the connection cap and the event
// that says who connected.
#pragma once

#include "event_log.h"

#include <QTcpSocket>

namespace velocast::receiver {

// "address:port" of the peer.
inline QString peerText(const QTcpSocket *socket)
{
    return QStringLiteral("%1:%2").arg(socket->peerAddress().toString()).arg(socket->peerPort());
}

// Takes a new connection in, or turns it away when `open` connections already reach `max`
// (logged as `rejectEvent`, the socket aborted and deleted). On acceptance the socket reads
// at most `readBuffer` bytes ahead and belongs to `owner`.
inline bool admitConnection(QTcpSocket *socket, QObject *owner, size_t open, int max, qint64 readBuffer,
                            EventLog &log, const QString &rejectEvent)
{
    socket->setParent(owner);
    if (int(open) >= max) {
        log.log(rejectEvent, {{QStringLiteral("peer"), socket->peerAddress().toString()},
                              {QStringLiteral("reason"), QStringLiteral("too many connections")}});
        socket->abort();
        socket->deleteLater();
        return false;
    }
    socket->setReadBufferSize(readBuffer);
    return true;
}

} // namespace velocast::receiver
