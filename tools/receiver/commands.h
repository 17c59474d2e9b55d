// The receiver's command language, used on standard input and in scenario files.
// One command per line; '#' starts a comment only at the beginning of a line.
#pragma once

#include <QJsonObject>
#include <QList>
#include <QString>

namespace velocast::receiver {

struct OutgoingMessage {
    QString id;
    QJsonObject property;
};

enum class CommandKind {
    Nothing,   // empty line or comment
    Send,      // send the messages to every control connection
    Close,     // close every control connection
    Heartbeat, // flag: answer heartbeats or not
    Report,    // write the media report now
    Snapshot,  // text: PNG file for a picture of the live view
    Sleep,     // number: milliseconds
    Await,     // text: event name; number: time-out in ms
    Help,
    Quit,
    Invalid,   // error says why
};

struct Command {
    CommandKind kind = CommandKind::Nothing;
    QList<OutgoingMessage> messages;
    bool flag = false;
    qint64 number = 0;
    QString text;
    QString error;
};

// Defaults the commands fill in.
struct CommandDefaults {
    QString name = QStringLiteral("Velocast Receiver"); // receiver name for "allow"
    int areaWidth = 1920;  // picture area for pointer events without width/height
    int areaHeight = 1080;
    QString airplayDeviceId = QStringLiteral("02:56:43:00:00:01");
    int airplayPort = 7000;
};

Command parseCommand(const QString &line, const CommandDefaults &defaults);

// The command reference, for --help and the "help" command.
QString commandReference();

// The "id_airplay_config" property for a device id and port.
QJsonObject airplayConfigProperty(const QString &deviceId, int port);

} // namespace velocast::receiver
