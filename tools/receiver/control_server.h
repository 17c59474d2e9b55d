// The receiver's control server: accepts control connections, reassembles "#"-framed JSON
// messages, answers heartbeats, admission and permission requests by policy, and sends
// steering messages on command. Everything it sees and sends goes to the event log.
// Main thread only.
#pragma once

#include "control_framing.h"
#include "event_log.h"

#include <QHostAddress>
#include <QObject>
#include <QPointer>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTimer>

#include <map>
#include <memory>

namespace velocast::receiver {

struct ControlPolicy {
    enum class Answer { Allow, Refuse, Manual };
    QString name = QStringLiteral("Velocast Receiver");
    Answer admission = Answer::Allow;
    int refuseMsg = 2;                 // "msg" of id_connect_refuse
    Answer permission = Answer::Allow;
    int permissionRefuseType = 2;      // "type" of id_permission_refuse
    int permissionWaitMs = -1;         // >= 0: id_permission_wait first, the answer this much later
    bool answerHeartbeats = true;
    int safeCode = -1;                 // >= 0: a request with another safe_code is refused (msg 2)
    qsizetype maxMessageBytes = 64 * 1024;
    int maxConnections = 8;            // further control connections are closed at once
};

class ControlServer : public QObject {
    Q_OBJECT
public:
    ControlServer(const ControlPolicy &policy, EventLog *log, QObject *parent = nullptr);
    ~ControlServer() override;

    bool listen(const QHostAddress &address, quint16 port, QString *error);
    quint16 port() const { return server_.serverPort(); }

    void setAnswerHeartbeats(bool on) { policy_.answerHeartbeats = on; }
    bool answerHeartbeats() const { return policy_.answerHeartbeats; }

    // Sends one message to every open control connection; returns how many got it.
    int sendToAll(const QString &id, const QJsonObject &property);
    // Closes every control connection.
    void closeAll();
    int connectionCount() const { return int(connections_.size()); }

private:
    struct Connection {
        int number = 0;
        QPointer<QTcpSocket> socket;
        MessageFramer framer;
        int oversizedSeen = 0;
        int badMessages = 0;
        std::unique_ptr<QTimer> permissionTimer;
        explicit Connection(qsizetype cap) : framer(cap) {}
    };

    void onNewConnection();
    void onReadyRead(int number);
    void onDisconnected(int number);
    void handle(Connection &c, const ControlMessage &m);
    void answerPermission(Connection &c);
    bool send(Connection &c, const QString &id, const QJsonObject &property);
    void reportBadPiece(Connection &c, const QString &reason, const QByteArray &piece);

    ControlPolicy policy_;
    EventLog *log_;
    QTcpServer server_;
    std::map<int, std::unique_ptr<Connection>> connections_;
    int nextNumber_ = 1;
};

} // namespace velocast::receiver
