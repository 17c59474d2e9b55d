#include "commands.h"

#include <QJsonDocument>
#include <QRegularExpression>

namespace velocast::receiver {

namespace {

Command invalid(const QString &why)
{
    Command c;
    c.kind = CommandKind::Invalid;
    c.error = why;
    return c;
}

Command send(std::initializer_list<OutgoingMessage> messages)
{
    Command c;
    c.kind = CommandKind::Send;
    c.messages = messages;
    return c;
}

bool toInt(const QString &s, qint64 *out)
{
    bool ok = false;
    *out = s.toLongLong(&ok);
    return ok && *out >= INT32_MIN && *out <= INT32_MAX;
}

// "on"/"off", "1"/"0", "true"/"false", "yes"/"no".
bool toSwitch(const QString &s, bool *out)
{
    const QString l = s.toLower();
    if (l == QLatin1String("on") || l == QLatin1String("1") || l == QLatin1String("true") || l == QLatin1String("yes")) {
        *out = true;
        return true;
    }
    if (l == QLatin1String("off") || l == QLatin1String("0") || l == QLatin1String("false") || l == QLatin1String("no")) {
        *out = false;
        return true;
    }
    return false;
}

OutgoingMessage pointer(qint64 type, qint64 x, qint64 y, qint64 w, qint64 h, qint64 wx, qint64 wy)
{
    return {QStringLiteral("id_pc_mk_event"), QJsonObject{{QStringLiteral("type"), type},
                                                          {QStringLiteral("x"), x},
                                                          {QStringLiteral("y"), y},
                                                          {QStringLiteral("width"), w},
                                                          {QStringLiteral("height"), h},
                                                          {QStringLiteral("wheel_x"), wx},
                                                          {QStringLiteral("wheel_y"), wy}}};
}

} // namespace

// Placeholder TXT pairs: the sender passes them through to its service advertisement
// without reading anything but "deviceid".
QJsonObject airplayConfigProperty(const QString &deviceId, int port)
{
    const QJsonObject airplay{{QStringLiteral("deviceid"), deviceId},
                              {QStringLiteral("features"), QStringLiteral("0x0")},
                              {QStringLiteral("model"), QStringLiteral("VelocastReceiver1,1")},
                              {QStringLiteral("srcvers"), QStringLiteral("1.0")}};
    const QJsonObject airtunes{{QStringLiteral("txtvers"), QStringLiteral("1")}, {QStringLiteral("ch"), QStringLiteral("2")},
                               {QStringLiteral("sr"), QStringLiteral("44100")},  {QStringLiteral("ss"), QStringLiteral("16")},
                               {QStringLiteral("tp"), QStringLiteral("UDP")}};
    return {{QStringLiteral("airplay_txt"), airplay}, {QStringLiteral("airtunes_txt"), airtunes}, {QStringLiteral("port"), port}};
}

Command parseCommand(const QString &line, const CommandDefaults &d)
{
    const QString trimmed = line.trimmed();
    if (trimmed.isEmpty() || trimmed.startsWith(QLatin1Char('#'))) return {};
    static const QRegularExpression ws(QStringLiteral("\\s+"));
    const QStringList w = trimmed.split(ws);
    const QString verb = w[0].toLower();
    const qsizetype argc = w.size() - 1;
    // The rest of the line after the verb, spaces kept (names, JSON).
    const QString rest = trimmed.mid(w[0].size()).trimmed();

    auto ints = [&](qsizetype from, qsizetype count, QList<qint64> *out) {
        for (qsizetype i = from; i < from + count; ++i) {
            qint64 v;
            if (i >= w.size() || !toInt(w[i], &v)) return false;
            out->append(v);
        }
        return true;
    };

    if (verb == QLatin1String("allow")) {
        const QString name = rest.isEmpty() ? d.name : rest;
        return send({{QStringLiteral("id_connect_allow"), {{QStringLiteral("name"), name}}}});
    }
    if (verb == QLatin1String("refuse")) {
        qint64 msg = 2;
        if (argc > 1 || (argc == 1 && !toInt(w[1], &msg))) return invalid(QStringLiteral("usage: refuse [MSG]"));
        return send({{QStringLiteral("id_connect_refuse"), {{QStringLiteral("msg"), msg}}}});
    }
    if (verb == QLatin1String("grant")) return send({{QStringLiteral("id_permission_allow"), {}}});
    if (verb == QLatin1String("wait")) return send({{QStringLiteral("id_permission_wait"), {}}});
    if (verb == QLatin1String("deny")) {
        qint64 type = 2;
        if (argc > 1 || (argc == 1 && !toInt(w[1], &type))) return invalid(QStringLiteral("usage: deny [TYPE]"));
        return send({{QStringLiteral("id_permission_refuse"), {{QStringLiteral("type"), type}}}});
    }
    if (verb == QLatin1String("resize")) {
        QList<qint64> v;
        if ((argc != 1 && argc != 2) || !ints(1, argc, &v)) return invalid(QStringLiteral("usage: resize COUNT [TYPE]"));
        const qint64 type = argc == 2 ? v[1] : 2;
        return send({{QStringLiteral("id_codec_resize"), {{QStringLiteral("type"), type}, {QStringLiteral("count"), v[0]}}}});
    }
    if (verb == QLatin1String("pause") || verb == QLatin1String("resume")) {
        if (argc != 0) return invalid(QStringLiteral("usage: pause | resume"));
        return send({{QStringLiteral("id_video_pause"), {{QStringLiteral("pause"), verb == QLatin1String("pause")}}}});
    }
    if (verb == QLatin1String("audio")) {
        qint64 type = 0;
        bool on = false;
        if (argc != 1) return invalid(QStringLiteral("usage: audio on|off|TYPE"));
        if (toSwitch(w[1], &on))
            type = on ? 1 : 0;
        else if (!toInt(w[1], &type))
            return invalid(QStringLiteral("usage: audio on|off|TYPE"));
        return send({{QStringLiteral("id_audio_ctrl"), {{QStringLiteral("type"), type}}}});
    }
    if (verb == QLatin1String("mouse")) {
        QList<qint64> v;
        if ((argc != 3 && argc != 5 && argc != 7) || !ints(1, argc, &v))
            return invalid(QStringLiteral("usage: mouse TYPE X Y [WIDTH HEIGHT [WHEEL_X WHEEL_Y]]"));
        while (v.size() < 5) v.append(v.size() == 3 ? d.areaWidth : d.areaHeight);
        while (v.size() < 7) v.append(0);
        return send({pointer(v[0], v[1], v[2], v[3], v[4], v[5], v[6])});
    }
    if (verb == QLatin1String("click") || verb == QLatin1String("rclick") || verb == QLatin1String("dblclick")) {
        QList<qint64> v;
        if (argc != 2 || !ints(1, 2, &v)) return invalid(QStringLiteral("usage: %1 X Y").arg(verb));
        const auto at = [&](qint64 type) { return pointer(type, v[0], v[1], d.areaWidth, d.areaHeight, 0, 0); };
        if (verb == QLatin1String("click")) return send({at(1), at(2)});
        if (verb == QLatin1String("rclick")) return send({at(3), at(4)});
        return send({at(7)});
    }
    if (verb == QLatin1String("wheel")) {
        QList<qint64> v;
        if (argc != 2 || !ints(1, 2, &v)) return invalid(QStringLiteral("usage: wheel WHEEL_X WHEEL_Y"));
        return send({pointer(9, 0, 0, d.areaWidth, d.areaHeight, v[0], v[1])});
    }
    if (verb == QLatin1String("rename")) {
        if (rest.isEmpty()) return invalid(QStringLiteral("usage: rename NAME"));
        return send({{QStringLiteral("id_rename"), {{QStringLiteral("name"), rest}}}});
    }
    if (verb == QLatin1String("stop")) {
        qint64 type = 2;
        if (argc > 1 || (argc == 1 && !toInt(w[1], &type))) return invalid(QStringLiteral("usage: stop [TYPE]"));
        return send({{QStringLiteral("id_permission_disconnect"), {{QStringLiteral("type"), type}}}});
    }
    if (verb == QLatin1String("airplay-config")) {
        qint64 port = d.airplayPort;
        if (argc > 1 || (argc == 1 && (!toInt(w[1], &port) || port < 0 || port > 65535)))
            return invalid(QStringLiteral("usage: airplay-config [PORT]"));
        return send({{QStringLiteral("id_airplay_config"), airplayConfigProperty(d.airplayDeviceId, int(port))}});
    }
    if (verb == QLatin1String("airplay-succeed")) return send({{QStringLiteral("id_airplay_screen_succeed"), {}}});
    if (verb == QLatin1String("send")) {
        if (argc < 1) return invalid(QStringLiteral("usage: send ID [PROPERTY-JSON-OBJECT]"));
        const QString json = rest.mid(w[1].size()).trimmed();
        QJsonObject property;
        if (!json.isEmpty()) {
            QJsonParseError err{};
            const QJsonDocument doc = QJsonDocument::fromJson(json.toUtf8(), &err);
            if (err.error != QJsonParseError::NoError || !doc.isObject())
                return invalid(QStringLiteral("send: the property must be one JSON object"));
            property = doc.object();
        }
        return send({{w[1], property}});
    }
    if (verb == QLatin1String("close")) {
        Command c;
        c.kind = CommandKind::Close;
        return c;
    }
    if (verb == QLatin1String("heartbeat")) {
        Command c;
        c.kind = CommandKind::Heartbeat;
        if (argc != 1 || !toSwitch(w[1], &c.flag)) return invalid(QStringLiteral("usage: heartbeat on|off"));
        return c;
    }
    if (verb == QLatin1String("report")) {
        Command c;
        c.kind = CommandKind::Report;
        return c;
    }
    if (verb == QLatin1String("snapshot")) {
        Command c;
        c.kind = CommandKind::Snapshot;
        c.text = rest;
        if (rest.isEmpty()) return invalid(QStringLiteral("usage: snapshot FILE.png"));
        return c;
    }
    if (verb == QLatin1String("sleep")) {
        Command c;
        c.kind = CommandKind::Sleep;
        if (argc != 1 || !toInt(w[1], &c.number) || c.number < 0) return invalid(QStringLiteral("usage: sleep MS"));
        return c;
    }
    if (verb == QLatin1String("await")) {
        Command c;
        c.kind = CommandKind::Await;
        c.number = 30000;
        if (argc < 1 || argc > 2 || (argc == 2 && (!toInt(w[2], &c.number) || c.number < 0)))
            return invalid(QStringLiteral("usage: await EVENT [TIMEOUT-MS]"));
        c.text = w[1];
        return c;
    }
    if (verb == QLatin1String("help")) {
        Command c;
        c.kind = CommandKind::Help;
        return c;
    }
    if (verb == QLatin1String("quit") || verb == QLatin1String("exit")) {
        Command c;
        c.kind = CommandKind::Quit;
        return c;
    }
    return invalid(QStringLiteral("unknown command \"%1\" (try help)").arg(w[0]));
}

QString commandReference()
{
    return QStringLiteral(
        "Commands (standard input and scenario files, one per line; a line starting with # is a comment):\n"
        "  allow [NAME]            send id_connect_allow with the receiver name (default: --name)\n"
        "  refuse [MSG]            send id_connect_refuse with msg MSG (1 full, 2 not accepted; default 2)\n"
        "  wait                    send id_permission_wait\n"
        "  grant                   send id_permission_allow\n"
        "  deny [TYPE]             send id_permission_refuse with type TYPE (default 2)\n"
        "  resize COUNT [TYPE]     send id_codec_resize (type 2 unless given) for COUNT pictures side by side\n"
        "  pause | resume          send id_video_pause with pause true / false\n"
        "  audio on|off|TYPE       send id_audio_ctrl with type 1 (on), 0 (off) or TYPE\n"
        "  mouse TYPE X Y [W H [WHEEL_X WHEEL_Y]]\n"
        "                          send id_pc_mk_event; TYPE 1/2 left down/up, 3/4 right down/up,\n"
        "                          5/6 centre down/up, 7 double click, 8 drag with the held button,\n"
        "                          9 wheel; W H is the picture area (default --area)\n"
        "  click X Y | rclick X Y  left / right button down and up at X Y\n"
        "  dblclick X Y            double click (type 7) at X Y\n"
        "  wheel WHEEL_X WHEEL_Y   wheel event (type 9), in lines\n"
        "  rename NAME             send id_rename\n"
        "  stop [TYPE]             send id_permission_disconnect (type 2 unless given): end the cast\n"
        "  airplay-config [PORT]   send id_airplay_config with TXT dictionaries and PORT (default --airplay-port)\n"
        "  airplay-succeed         send id_airplay_screen_succeed\n"
        "  send ID [JSON]          send any message; JSON is its property object\n"
        "  close                   close the control connection(s)\n"
        "  heartbeat on|off        answer heartbeats or stay silent (the sender then drops the link)\n"
        "  report                  write the media report now\n"
        "  snapshot FILE.png       save a picture of the live view window\n"
        "  sleep MS                wait MS milliseconds before the next command\n"
        "  await EVENT [MS]        wait until the event log shows EVENT (default time-out 30000 ms)\n"
        "  help                    print this list\n"
        "  quit                    write the report and exit\n");
}

} // namespace velocast::receiver
