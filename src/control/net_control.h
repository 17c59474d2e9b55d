#pragma once

#include "common/notification_center.h"
#include "control/msg_heart.h"
#include "control/net_stream.h"

#include <QByteArray>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QVariant>

#include <functional>
#include <memory>
#include <mutex>
#include <vector>

class QTimer;

namespace velocast {

// The process-wide control channel to the receiver.
//
// Wire framing: each message is the indented UTF-8 JSON text of one object, followed by
// one "#". Nothing precedes it and "#" is never escaped. Every outgoing message carries
// the envelope {"from": 2, "to": 5, "uuid": <sender identifier>}:
//
//   {                              <- JSON text, keys in any order
//       "from": 2,
//       "id": "id_connect_request",
//       "property": { ... },
//       "to": 5,
//       "uuid": "8C1F...-...."
//   }
//   #                              <- delimiter, then the next message
//
// Incoming chunks (at most 1024 bytes each) are split at "#" with no buffering between
// chunks: a message the transport delivers in two pieces is parsed as two broken halves,
// each posted as a null object. Receivers keep each message well under 1024 bytes.
//
// Other subsystems send by posting NETCONTROL_SEND with a message map and receive by
// observing NETCONTROL_RECEIVE; NETCONTROL_DISCONNECT reports the receiver closing the
// stream and NETCONTROL_CONNECTBROKEN the heartbeat giving up.
class NetControl {
public:
    using ResultBlock = std::function<void(bool success)>;

    static constexpr quint16 kControlPort = 15623;
    static constexpr int kConnectTimeoutMs = 5000;

    // The single instance, made on first use (from any thread, once a QCoreApplication exists).
    static NetControl &shareControl();

    // Parsed JSON: a QVariantMap or QVariantList, or an invalid QVariant when text is not JSON.
    static QVariant dicFromJson(const QByteArray &json);
    // Indented UTF-8 JSON; a null QByteArray when a value cannot be written as JSON.
    static QByteArray jsonFromDic(const QVariantMap &dic);
    // A fresh UUID, upper case, 36 characters.
    static QString uuid();
    // The sender identifier, kept under "UUIDS"; made and stored on first use.
    static QString senderID();
    // Forgets the cached sender identifier so the next senderID() reads the setting again.
    static void clearSenderIDCacheForTests();
    // dic with the envelope keys set, as JSON; null when dic is not a map.
    static QByteArray eventJsonWithDic(const QVariant &dic);

    // Separate instances exist for tests; the program uses shareControl().
    NetControl();
    ~NetControl();
    NetControl(const NetControl &) = delete;
    NetControl &operator=(const NetControl &) = delete;

    // Opens a new connection to ip:15623. result is called once with the outcome: on the
    // socket queue for a failed connect, on the main thread otherwise; and with false by
    // the 5 s time-out if nothing else came first. Any thread.
    void connect(const QString &ip, ResultBlock result);
    void sendDic(const QVariant &dic);
    void sendNotice(const QVariant &object);
    void sendData(const QByteArray &data);
    // One received chunk (main thread).
    void postData(const QByteArray &chunk);
    void startBeatHeart(bool start);
    void closeStream();
    void disConnect();
    // The heartbeat stops now; the stream closes on the main thread's next turn, so what
    // the other observers of the notification being delivered send still goes out first.
    void disConnectSoon();
    void cancelConnect();
    void connectFaild(const ResultBlock &result);

    QString localIPStr() const;
    void setLocalIPStr(const QString &ip);
    std::shared_ptr<NetStream> stream() const;
    MsgHeart &heart() { return heart_; }
    // Connect time-outs armed and not yet fired or cancelled (main thread).
    int pendingTimeouts() const;

    // Where connect() goes; tests point it at a loopback port.
    void setControlPort(quint16 port) { port_ = port; }

private:
    void armTimeout(const ResultBlock &result);
    void cancelTimeouts();

    mutable std::mutex mutex_;
    std::shared_ptr<NetStream> stream_;
    QString localIPStr_;
    quint16 port_ = kControlPort;
    MsgHeart heart_;
    std::unique_ptr<QObject> context_; // main-thread owner of the time-out timers
    std::vector<QPointer<QTimer>> timeouts_;
    std::shared_ptr<NetControl *> life_; // weak handle for callbacks
    Observation sendObserver_;
};

} // namespace velocast
