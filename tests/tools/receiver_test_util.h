// Bytes as the sender puts them on the wire, a sender-side control client, and an
// in-process receiver on loopback ports of its own.
#pragma once

#include "control_framing.h"
#include "push/media_wire_format.h"
#include "receiver.h"

#include "support/test_support.h"

#include <QJsonDocument>
#include <QTcpSocket>

#include <gtest/gtest.h>

namespace velocast::receiver::test {

namespace wire = velocast::wire;

// A "4CVA" record; lengthField overrides the stated payload length.
inline QByteArray record(const QByteArray &payload, uint16_t keyFlag, uint32_t lengthField = UINT32_MAX)
{
    wire::VideoRecordHeader h;
    h.payloadLength = lengthField == UINT32_MAX ? uint32_t(payload.size()) : lengthField;
    h.keyFlag = keyFlag;
    QByteArray out(int(wire::kRecordHeaderSize), 0);
    wire::writeVideoRecordHeader(reinterpret_cast<uint8_t *>(out.data()), h);
    return out + payload;
}

// The sender's fixed ADTS header (MPEG-2 AAC LC, 44100 Hz, stereo, no CRC), then the payload.
inline QByteArray adtsFrame(int payloadSize, char fill = 0x21)
{
    const int fl = payloadSize + 7;
    const char h[7] = {char(0xFF), char(0xF9), char(0x50), char(0x80 ^ (fl >> 11)), char(fl >> 3), char((fl << 5) | 0x1F), char(0xFC)};
    return QByteArray(h, 7) + QByteArray(payloadSize, fill);
}

inline QByteArray datagram(uint16_t seq, const QByteArray &payload, uint8_t type = wire::kDatagramTypeAudio, bool first = true,
                           bool last = true, uint8_t drop = 0)
{
    wire::DatagramHeader h;
    h.type = type;
    h.firstPiece = first;
    h.lastPiece = last;
    h.sequence = seq;
    h.dropPriority = drop;
    QByteArray out(4, 0);
    wire::writeDatagramHeader(reinterpret_cast<uint8_t *>(out.data()), h);
    return out + payload;
}

// A message as the sender writes it: pretty-printed JSON with the envelope, then '#'.
inline QByteArray senderMessage(const QString &id, const QJsonObject &property)
{
    const QJsonObject o{{"id", id}, {"property", property}, {"from", 2}, {"to", 5}, {"uuid", "5C0FFEE0-0000-4000-8000-000000000001"}};
    return QJsonDocument(o).toJson(QJsonDocument::Indented) + "#";
}

// The sender's side of the control channel.
class ControlClient {
public:
    bool connectTo(quint16 port)
    {
        socket.connectToHost(QHostAddress::LocalHost, port);
        return velocast::test::waitUntil([&] { return socket.state() == QAbstractSocket::ConnectedState; });
    }
    void send(const QString &id, const QJsonObject &property) { socket.write(senderMessage(id, property)); }
    // The next message from the receiver (reassembled across reads), or an empty id.
    ControlMessage next()
    {
        velocast::test::waitUntil([&] {
            for (const QByteArray &p : framer.feed(socket.readAll())) received.append(p);
            return !received.isEmpty();
        });
        if (received.isEmpty()) return {};
        const QByteArray piece = received.takeFirst();
        EXPECT_LT(piece.size() + 1, 1024);
        const ParseResult r = parseMessage(piece);
        EXPECT_TRUE(r.ok()) << piece.constData();
        return r.message;
    }
    QTcpSocket socket;
    MessageFramer framer;
    QList<QByteArray> received;
};

// A receiver on 127.0.0.1 with ports it picks, no standard input; events are collected as
// "name" or "name:detail" with the field named detailKey of the given event.
struct LoopbackReceiver {
    explicit LoopbackReceiver(ReceiverOptions o, const QString &detailEvent = {}, const QString &detailKey = {})
    {
        o.bind = o.shownAddress = QHostAddress(QHostAddress::LocalHost);
        o.controlPort = o.mediaPort = 0;
        o.echo = o.readStdin = false;
        receiver = std::make_unique<Receiver>(o);
        QObject::connect(receiver->eventLog(), &EventLog::logged, [=, this](const QString &e, const QJsonObject &f) {
            events << (e == detailEvent ? e + ":" + f.value(detailKey).toString() : e);
        });
        started = receiver->start(&error);
    }
    std::unique_ptr<Receiver> receiver;
    QStringList events;
    QString error;
    bool started = false;
};

} // namespace velocast::receiver::test
