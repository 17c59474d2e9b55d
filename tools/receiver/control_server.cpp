#include "control_server.h"

#include "accept.h"

#include <QDateTime>

namespace velocast::receiver {

namespace {
// Kernel data we take per read; the framer caps what is kept between reads.
constexpr qint64 kReadChunk = 16 * 1024;
// A peer that stops reading must not make us buffer without end.
constexpr qint64 kMaxWriteBacklog = 256 * 1024;
// Bad messages logged one by one per connection; the rest are only counted.
constexpr int kBadMessagesLogged = 50;

// A printable sample of bad input for the log: at most 80 bytes, non-ASCII escaped.
QString sample(const QByteArray &bytes)
{
    QString out;
    for (qsizetype i = 0; i < bytes.size() && i < 80; ++i) {
        const auto c = uchar(bytes[i]);
        if (c >= 0x20 && c < 0x7F)
            out += QChar(c);
        else
            out += QStringLiteral("\\x%1").arg(c, 2, 16, QLatin1Char('0'));
    }
    if (bytes.size() > 80) out += QStringLiteral("...");
    return out;
}
} // namespace

ControlServer::ControlServer(const ControlPolicy &policy, EventLog *log, QObject *parent)
    : QObject(parent), policy_(policy), log_(log)
{
    connect(&server_, &QTcpServer::newConnection, this, &ControlServer::onNewConnection);
}

ControlServer::~ControlServer()
{
    for (auto &[n, c] : connections_)
        if (c->socket) c->socket->disconnect(this);
}

bool ControlServer::listen(const QHostAddress &address, quint16 port, QString *error)
{
    if (!server_.listen(address, port)) {
        if (error) *error = server_.errorString();
        return false;
    }
    return true;
}

void ControlServer::onNewConnection()
{
    while (QTcpSocket *socket = server_.nextPendingConnection()) {
        if (!admitConnection(socket, this, connections_.size(), policy_.maxConnections, kReadChunk, *log_,
                             QStringLiteral("control_rejected")))
            continue;
        const int number = nextNumber_++;
        auto c = std::make_unique<Connection>(policy_.maxMessageBytes);
        c->number = number;
        c->socket = socket;
        connect(socket, &QTcpSocket::readyRead, this, [this, number] { onReadyRead(number); });
        connect(socket, &QTcpSocket::disconnected, this, [this, number] { onDisconnected(number); });
        log_->log(QStringLiteral("control_connected"),
                  {{QStringLiteral("conn"), number},
                   {QStringLiteral("peer"), peerText(socket)}});
        connections_[number] = std::move(c);
        // Data may already be waiting.
        if (socket->bytesAvailable() > 0) onReadyRead(number);
    }
}

void ControlServer::onReadyRead(int number)
{
    auto it = connections_.find(number);
    if (it == connections_.end()) return;
    Connection &c = *it->second;
    while (c.socket && c.socket->bytesAvailable() > 0) {
        const QByteArray bytes = c.socket->read(kReadChunk);
        if (bytes.isEmpty()) break;
        const QList<QByteArray> pieces = c.framer.feed(bytes);
        if (c.framer.oversizedCount() != c.oversizedSeen) {
            c.oversizedSeen = c.framer.oversizedCount();
            if (++c.badMessages <= kBadMessagesLogged)
                log_->log(QStringLiteral("bad_message"), {{QStringLiteral("conn"), c.number},
                                                          {QStringLiteral("reason"), QStringLiteral("oversized")},
                                                          {QStringLiteral("limit"), qint64(c.framer.maxMessageBytes())}});
        }
        for (const QByteArray &piece : pieces) {
            const ParseResult r = parseMessage(piece);
            if (!r.ok()) {
                reportBadPiece(c, QLatin1String(parseErrorName(r.error)), piece);
                continue;
            }
            handle(c, r.message);
            // handle() may have closed the connection.
            if (connections_.find(number) == connections_.end()) return;
        }
    }
}

void ControlServer::reportBadPiece(Connection &c, const QString &reason, const QByteArray &piece)
{
    if (++c.badMessages > kBadMessagesLogged) return; // counted in control_closed
    log_->log(QStringLiteral("bad_message"), {{QStringLiteral("conn"), c.number},
                                              {QStringLiteral("reason"), reason},
                                              {QStringLiteral("length"), qint64(piece.size())},
                                              {QStringLiteral("sample"), sample(piece)}});
}

void ControlServer::onDisconnected(int number)
{
    onReadyRead(number); // what arrived just before the close
    auto it = connections_.find(number);
    if (it == connections_.end()) return;
    Connection &c = *it->second;
    const QByteArray pending = c.framer.takePending();
    if (!pending.trimmed().isEmpty()) reportBadPiece(c, QStringLiteral("unterminated"), pending);
    log_->log(QStringLiteral("control_closed"), {{QStringLiteral("conn"), number}, {QStringLiteral("bad_messages"), c.badMessages}});
    if (c.socket) c.socket->deleteLater();
    connections_.erase(it);
}

bool ControlServer::send(Connection &c, const QString &id, const QJsonObject &property)
{
    const QByteArray bytes = frameMessage(id, property);
    if (bytes.isEmpty()) {
        log_->log(QStringLiteral("send_failed"), {{QStringLiteral("conn"), c.number},
                                                  {QStringLiteral("id"), id},
                                                  {QStringLiteral("reason"), QStringLiteral("too long or contains #")}});
        return false;
    }
    if (!c.socket || c.socket->state() != QAbstractSocket::ConnectedState) return false;
    if (c.socket->bytesToWrite() > kMaxWriteBacklog) {
        log_->log(QStringLiteral("send_failed"), {{QStringLiteral("conn"), c.number},
                                                  {QStringLiteral("id"), id},
                                                  {QStringLiteral("reason"), QStringLiteral("peer is not reading; closing")}});
        // Not here: the close removes the connection, and callers may be walking the list.
        QMetaObject::invokeMethod(c.socket.data(), &QTcpSocket::abort, Qt::QueuedConnection);
        return false;
    }
    c.socket->write(bytes); // one write per message
    log_->log(QStringLiteral("message_sent"),
              {{QStringLiteral("conn"), c.number}, {QStringLiteral("id"), id}, {QStringLiteral("property"), property}});
    return true;
}

int ControlServer::sendToAll(const QString &id, const QJsonObject &property)
{
    int n = 0;
    for (auto &[number, c] : connections_)
        if (send(*c, id, property)) ++n;
    return n;
}

void ControlServer::closeAll()
{
    // disconnected() removes each entry; collect the sockets first.
    QList<QPointer<QTcpSocket>> sockets;
    for (auto &[number, c] : connections_) sockets.append(c->socket);
    for (const auto &s : sockets)
        if (s) s->disconnectFromHost();
}

void ControlServer::handle(Connection &c, const ControlMessage &m)
{
    const QString &id = m.id;
    if (id == QLatin1String("id_heartbeat")) {
        // The reply is recognised by its id alone; echo the sender's timestamp.
        const bool answer = policy_.answerHeartbeats;
        log_->log(QStringLiteral("heartbeat"), {{QStringLiteral("conn"), c.number},
                                                {QStringLiteral("timestamp"), m.property.value(QStringLiteral("timestamp"))},
                                                {QStringLiteral("answered"), answer}});
        if (answer) {
            const QByteArray bytes = frameMessage(
                id, {{QStringLiteral("timestamp"), m.property.contains(QStringLiteral("timestamp"))
                                                       ? lenientInt(m.property, QStringLiteral("timestamp"))
                                                       : QDateTime::currentSecsSinceEpoch()}});
            if (c.socket && c.socket->bytesToWrite() <= kMaxWriteBacklog) c.socket->write(bytes);
        }
        return;
    }

    log_->log(QStringLiteral("message_received"),
              {{QStringLiteral("conn"), c.number}, {QStringLiteral("id"), id}, {QStringLiteral("property"), m.property}});

    if (id == QLatin1String("id_connect_request")) {
        QStringList problems;
        if (!m.property.value(QStringLiteral("name")).isString()) problems << QStringLiteral("name is not a string");
        if (!m.property.value(QStringLiteral("ip")).isString()) problems << QStringLiteral("ip is not a string");
        const QJsonValue safe = m.property.value(QStringLiteral("safe_code"));
        if (!safe.isString() && !safe.isDouble()) problems << QStringLiteral("safe_code missing");
        const qint64 safeCode = lenientInt(safe);
        if (!problems.isEmpty())
            log_->log(QStringLiteral("field_problem"),
                      {{QStringLiteral("conn"), c.number}, {QStringLiteral("id"), id}, {QStringLiteral("problems"), problems.join(QStringLiteral("; "))}});
        if (policy_.safeCode >= 0 && safeCode != policy_.safeCode) {
            log_->log(QStringLiteral("safe_code_mismatch"),
                      {{QStringLiteral("conn"), c.number}, {QStringLiteral("got"), safeCode}, {QStringLiteral("expected"), policy_.safeCode}});
            send(c, QStringLiteral("id_connect_refuse"), {{QStringLiteral("msg"), 2}});
            return;
        }
        switch (policy_.admission) {
        case ControlPolicy::Answer::Allow: send(c, QStringLiteral("id_connect_allow"), {{QStringLiteral("name"), policy_.name}}); break;
        case ControlPolicy::Answer::Refuse: send(c, QStringLiteral("id_connect_refuse"), {{QStringLiteral("msg"), policy_.refuseMsg}}); break;
        case ControlPolicy::Answer::Manual: break;
        }
        return;
    }
    if (id == QLatin1String("id_permission_request")) {
        if (policy_.permission == ControlPolicy::Answer::Manual) return;
        if (policy_.permissionWaitMs < 0) {
            answerPermission(c);
            return;
        }
        send(c, QStringLiteral("id_permission_wait"), {});
        c.permissionTimer = std::make_unique<QTimer>();
        c.permissionTimer->setSingleShot(true);
        const int number = c.number;
        connect(c.permissionTimer.get(), &QTimer::timeout, this, [this, number] {
            auto it = connections_.find(number);
            if (it != connections_.end()) answerPermission(*it->second);
        });
        c.permissionTimer->start(policy_.permissionWaitMs);
        return;
    }
    if (id == QLatin1String("id_permission_cancel")) {
        if (c.permissionTimer && c.permissionTimer->isActive()) {
            c.permissionTimer->stop();
            log_->log(QStringLiteral("permission_cancelled"), {{QStringLiteral("conn"), c.number}});
        }
        return;
    }
    // id_permission_disconnect, id_rename and unknown ids: logged above, nothing to answer.
}

void ControlServer::answerPermission(Connection &c)
{
    if (policy_.permission == ControlPolicy::Answer::Refuse)
        send(c, QStringLiteral("id_permission_refuse"), {{QStringLiteral("type"), policy_.permissionRefuseType}});
    else
        send(c, QStringLiteral("id_permission_allow"), {});
}

} // namespace velocast::receiver
