// velocast-receiver: plays the receiver's part of a cast for tests, demos and people
// without a receiver box. See --help.
#include "commands.h"
#include "live_view.h"
#include "receiver.h"

#include <QApplication>
#include <QCommandLineParser>
#include <QCoreApplication>
#include <QPointer>
#include <QJsonArray>
#include <QSocketNotifier>
#include <QTimer>

#include <cstring>

#include <csignal>
#include <cstdio>
#include <sys/socket.h>
#include <unistd.h>

using namespace velocast::receiver;

namespace {

int signalPipe[2] = {-1, -1};

void onSignal(int)
{
    const char c = 1;
    [[maybe_unused]] auto n = ::write(signalPipe[1], &c, 1);
}

bool parsePort(const QString &text, quint16 *port)
{
    bool ok = false;
    const uint v = text.toUInt(&ok);
    if (!ok || v > 65535) return false;
    *port = quint16(v);
    return true;
}

bool parseAnswer(const QString &text, ControlPolicy::Answer *answer)
{
    if (text == QLatin1String("allow")) *answer = ControlPolicy::Answer::Allow;
    else if (text == QLatin1String("refuse")) *answer = ControlPolicy::Answer::Refuse;
    else if (text == QLatin1String("manual")) *answer = ControlPolicy::Answer::Manual;
    else return false;
    return true;
}

[[noreturn]] void fail(const QString &message)
{
    std::fprintf(stderr, "velocast-receiver: %s\n", message.toUtf8().constData());
    std::exit(2);
}

// A window is opened only with a display, without --headless, and not for --help.
bool wantsLiveView(int argc, char **argv)
{
    for (int i = 1; i < argc; ++i) {
        if (!std::strcmp(argv[i], "--headless") || !std::strcmp(argv[i], "--help") || !std::strcmp(argv[i], "-h")
            || !std::strcmp(argv[i], "--help-all"))
            return false;
    }
    const char *x = std::getenv("DISPLAY");
    const char *w = std::getenv("WAYLAND_DISPLAY");
    return (x && *x) || (w && *w);
}

} // namespace

int main(int argc, char **argv)
{
    const bool live = wantsLiveView(argc, argv);
    std::unique_ptr<QCoreApplication> application =
        live ? std::make_unique<QApplication>(argc, argv) : std::make_unique<QCoreApplication>(argc, argv);
    QCoreApplication &app = *application;
    QCoreApplication::setApplicationName(QStringLiteral("velocast-receiver"));

    QCommandLineParser p;
    p.setApplicationDescription(QStringLiteral(
        "Reference receiver for Velocast: accepts a sender's control connection (TCP, \"#\"-framed JSON),\n"
        "admits it, answers heartbeats and permission requests, sends steering messages on command,\n"
        "and receives the cast (H.264 records over TCP, ADTS audio datagrams over UDP on the media port),\n"
        "checks every record and datagram, and writes video.h264, audio.aac and report.json.\n"
        "It prints the six-digit connect code for its address and safe code, as a receiver's screen would.\n"
        "Events go to a JSON-lines log (--event-log) and, readable, to standard error.\n"
        "With a display (and without --headless) a window shows the video and the audio is played;\n"
        "clicks, drags and the wheel in it are sent to the sender as id_pc_mk_event messages with the\n"
        "window's area as width/height. Without a display it runs headless.\n"
        "Limits: at most 8 control and 8 video connections at once; a control message longer than\n"
        "--max-message and a video record longer than --max-record are dropped; a peer that leaves\n"
        "256 KiB of our messages unread is disconnected.\n\n")
        + commandReference() + QStringLiteral(
        "\nEvent log (one JSON object per line with \"t\" in ms and \"event\"):\n"
        "  listening            ports, address, safe_code and the connect code (or code_error)\n"
        "  control_connected    conn, peer;  control_closed: conn\n"
        "  message_received     conn, id, property (every message but heartbeats)\n"
        "  message_sent         conn, id, property;  send_failed: a message too long or with '#'\n"
        "  heartbeat            conn, timestamp, answered\n"
        "  bad_message          conn, reason (bad_utf8, bad_json, not_an_object, missing_id, oversized,\n"
        "                       unterminated), length, sample\n"
        "  field_problem, safe_code_mismatch, permission_cancelled\n"
        "  media_connected      stream, peer;  media_closed: the stream's statistics\n"
        "  violation            stream (video or audio), kind, detail\n"
        "  video_frame, audio_frame   with --log-frames (video: n, key, bytes, read_us = CLOCK_MONOTONIC\n"
        "                       microseconds when the record was read)\n"
        "  media_report         per video stream: frames, key_frames, fps, bit_rate, longest_gop,\n"
        "                       width, height; audio: datagrams, frames, missing_datagrams;\n"
        "                       violations by kind with examples (also written to report.json)\n"
        "  command, command_error, await_timeout, snapshot, output_opened, output_failed, quit\n"
        "Violation kinds: bad_magic, oversized_record, empty_record, truncated_record,\n"
        "  record_header_field, no_start_code, short_start_code, empty_nal_unit, forbidden_bit,\n"
        "  key_flag_without_idr, idr_without_key_flag, parameter_sets_missing, key_frame_not_sps_first,\n"
        "  frame_before_key_frame, bad_sps, short_datagram, oversized_datagram,\n"
        "  unexpected_datagram_type, piece_flags, drop_priority, sequence_gap, sequence_out_of_order,\n"
        "  adts_bad_sync, adts_header_field, adts_bad_length, adts_length_mismatch.\n"));
    p.addHelpOption();
    const QCommandLineOption bind(QStringLiteral("bind"), QStringLiteral("Address to listen on (default 0.0.0.0, all IPv4 addresses)."), QStringLiteral("address"), QStringLiteral("0.0.0.0"));
    const QCommandLineOption controlPort(QStringLiteral("control-port"), QStringLiteral("Control port (default 15623; 0 picks a free one)."), QStringLiteral("port"), QStringLiteral("15623"));
    const QCommandLineOption mediaPort(QStringLiteral("media-port"), QStringLiteral("Media port, TCP video and UDP audio (default 15630; 0 picks a free one)."), QStringLiteral("port"), QStringLiteral("15630"));
    const QCommandLineOption address(QStringLiteral("address"), QStringLiteral("Address the connect code is shown for (default: the bind address, or this machine's first IPv4 address)."), QStringLiteral("address"));
    const QCommandLineOption safeCode(QStringLiteral("safe-code"), QStringLiteral("Safe code 0..15 carried in the connect code (default 1)."), QStringLiteral("n"), QStringLiteral("1"));
    const QCommandLineOption noSafeCheck(QStringLiteral("no-safe-code-check"), QStringLiteral("Admit senders whose safe_code differs from --safe-code (default: refuse them with msg 2)."));
    const QCommandLineOption name(QStringLiteral("name"), QStringLiteral("Receiver name sent in id_connect_allow (default \"Velocast Receiver\")."), QStringLiteral("name"), QStringLiteral("Velocast Receiver"));
    const QCommandLineOption admit(QStringLiteral("admit"), QStringLiteral("Answer to id_connect_request: allow (default), refuse (id_connect_refuse with --refuse-msg) or manual (wait for the allow/refuse commands)."), QStringLiteral("answer"), QStringLiteral("allow"));
    const QCommandLineOption refuseMsg(QStringLiteral("refuse-msg"), QStringLiteral("msg of id_connect_refuse: 1 receiver full, 2 not accepted (default 2)."), QStringLiteral("n"), QStringLiteral("2"));
    const QCommandLineOption permission(QStringLiteral("permission"), QStringLiteral("Answer to id_permission_request: allow (default), refuse (id_permission_refuse with --permission-refuse-type) or manual (grant/deny commands)."), QStringLiteral("answer"), QStringLiteral("allow"));
    const QCommandLineOption permissionType(QStringLiteral("permission-refuse-type"), QStringLiteral("type of id_permission_refuse (default 2)."), QStringLiteral("n"), QStringLiteral("2"));
    const QCommandLineOption permissionWait(QStringLiteral("permission-wait"), QStringLiteral("Send id_permission_wait first and the answer this many milliseconds later."), QStringLiteral("ms"));
    const QCommandLineOption noHeartbeat(QStringLiteral("no-heartbeat-reply"), QStringLiteral("Do not answer id_heartbeat (switch at run time with the heartbeat command)."));
    const QCommandLineOption maxMessage(QStringLiteral("max-message"), QStringLiteral("Largest control message accepted, in bytes (default 65536); longer ones are dropped and logged."), QStringLiteral("bytes"), QStringLiteral("65536"));
    const QCommandLineOption outputDir(QStringLiteral("output-dir"), QStringLiteral("Folder for video.h264, audio.aac and report.json (default: none written)."), QStringLiteral("dir"));
    const QCommandLineOption maxRecord(QStringLiteral("max-record"), QStringLiteral("Largest video record payload accepted, in bytes (default 16777216)."), QStringLiteral("bytes"), QStringLiteral("16777216"));
    const QCommandLineOption logFrames(QStringLiteral("log-frames"), QStringLiteral("Log one event per video and audio frame."));
    const QCommandLineOption eventLog(QStringLiteral("event-log"), QStringLiteral("Write the JSON-lines event log to this file (\"-\": standard output)."), QStringLiteral("file"));
    const QCommandLineOption quiet(QStringLiteral("quiet"), QStringLiteral("No readable event lines on standard error."));
    const QCommandLineOption scenario(QStringLiteral("scenario"), QStringLiteral("Run the commands of this file (see the list below), in order, after start-up."), QStringLiteral("file"));
    const QCommandLineOption command(QStringLiteral("command"), QStringLiteral("Run this command after start-up (repeatable; after the scenario)."), QStringLiteral("line"));
    const QCommandLineOption noStdin(QStringLiteral("no-stdin"), QStringLiteral("Do not read commands from standard input."));
    const QCommandLineOption area(QStringLiteral("area"), QStringLiteral("Picture area WIDTHxHEIGHT for pointer commands without a size (default 1920x1080)."), QStringLiteral("size"), QStringLiteral("1920x1080"));
    const QCommandLineOption airplayPort(QStringLiteral("airplay-port"), QStringLiteral("Port in id_airplay_config (default 7000)."), QStringLiteral("port"), QStringLiteral("7000"));
    const QCommandLineOption headless(QStringLiteral("headless"), QStringLiteral("No window, even when a display is present."));
    const QCommandLineOption noAudio(QStringLiteral("no-audio-output"), QStringLiteral("Do not play the audio in the live view."));
    const QCommandLineOption airplayId(QStringLiteral("airplay-deviceid"), QStringLiteral("deviceid in id_airplay_config (default 02:56:43:00:00:01)."), QStringLiteral("id"), QStringLiteral("02:56:43:00:00:01"));
    p.addOptions({bind, controlPort, mediaPort, address, safeCode, noSafeCheck, name, admit, refuseMsg, permission, permissionType, permissionWait,
                  noHeartbeat, maxMessage, outputDir, maxRecord, logFrames, eventLog, quiet, scenario, command, noStdin, area, airplayPort, airplayId, headless, noAudio});
    p.process(app);

    ReceiverOptions o;
    o.bind = QHostAddress(p.value(bind));
    if (o.bind.protocol() != QAbstractSocket::IPv4Protocol) fail(QStringLiteral("--bind needs an IPv4 address"));
    if (!parsePort(p.value(controlPort), &o.controlPort)) fail(QStringLiteral("bad --control-port"));
    if (!parsePort(p.value(mediaPort), &o.mediaPort)) fail(QStringLiteral("bad --media-port"));
    if (p.isSet(address)) {
        o.shownAddress = QHostAddress(p.value(address));
        if (o.shownAddress.protocol() != QAbstractSocket::IPv4Protocol) fail(QStringLiteral("--address needs an IPv4 address"));
    }
    bool ok = false;
    o.safeCode = p.value(safeCode).toInt(&ok);
    if (!ok || o.safeCode < 0 || o.safeCode > 15) fail(QStringLiteral("--safe-code must be 0..15"));
    o.checkSafeCode = !p.isSet(noSafeCheck);
    o.control.name = p.value(name);
    o.commands.name = o.control.name;
    if (!parseAnswer(p.value(admit), &o.control.admission)) fail(QStringLiteral("--admit is allow, refuse or manual"));
    o.control.refuseMsg = p.value(refuseMsg).toInt(&ok);
    if (!ok) fail(QStringLiteral("bad --refuse-msg"));
    if (!parseAnswer(p.value(permission), &o.control.permission)) fail(QStringLiteral("--permission is allow, refuse or manual"));
    o.control.permissionRefuseType = p.value(permissionType).toInt(&ok);
    if (!ok) fail(QStringLiteral("bad --permission-refuse-type"));
    if (p.isSet(permissionWait)) {
        o.control.permissionWaitMs = p.value(permissionWait).toInt(&ok);
        if (!ok || o.control.permissionWaitMs < 0) fail(QStringLiteral("bad --permission-wait"));
    }
    o.control.answerHeartbeats = !p.isSet(noHeartbeat);
    o.control.maxMessageBytes = p.value(maxMessage).toLongLong(&ok);
    if (!ok || o.control.maxMessageBytes < 16) fail(QStringLiteral("bad --max-message"));
    o.media.outputDir = p.value(outputDir);
    o.media.maxRecordPayload = p.value(maxRecord).toUInt(&ok);
    if (!ok || o.media.maxRecordPayload == 0) fail(QStringLiteral("bad --max-record"));
    o.media.logFrames = p.isSet(logFrames);
    o.eventLogPath = p.value(eventLog);
    o.echo = !p.isSet(quiet);
    o.scenarioPath = p.value(scenario);
    o.readStdin = !p.isSet(noStdin);
    const QStringList wh = p.value(area).split(QLatin1Char('x'));
    if (wh.size() != 2 || (o.commands.areaWidth = wh[0].toInt()) <= 0 || (o.commands.areaHeight = wh[1].toInt()) <= 0)
        fail(QStringLiteral("--area is WIDTHxHEIGHT"));
    quint16 apPort = 0;
    if (!parsePort(p.value(airplayPort), &apPort)) fail(QStringLiteral("bad --airplay-port"));
    o.commands.airplayPort = apPort;
    o.commands.airplayDeviceId = p.value(airplayId);

    // A peer that vanishes must not kill us with SIGPIPE; SIGINT/SIGTERM end the run
    // cleanly, with the report written.
    std::signal(SIGPIPE, SIG_IGN);
    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, signalPipe) != 0) fail(QStringLiteral("socketpair failed"));
    std::signal(SIGINT, onSignal);
    std::signal(SIGTERM, onSignal);

    Receiver receiver(o);
    QObject::connect(&receiver, &Receiver::quitRequested, &app, &QCoreApplication::quit, Qt::QueuedConnection);
    QSocketNotifier signalNotifier(signalPipe[0], QSocketNotifier::Read);
    QObject::connect(&signalNotifier, &QSocketNotifier::activated, &receiver, [&receiver] {
        char c;
        [[maybe_unused]] auto n = ::read(signalPipe[0], &c, 1);
        receiver.enqueue({QStringLiteral("quit")});
    });

    // Live view. Decoder and player are declared after the view so that they stop (and
    // their streaming threads with them) before the view goes away.
    std::unique_ptr<LiveView> view;
    std::unique_ptr<VideoDecoder> decoder;
    std::unique_ptr<AudioPlayer> player;
    if (live) {
        gst_init(nullptr, nullptr);
        view = std::make_unique<LiveView>(o.control.name);
        QPointer<LiveView> target(view.get());
        decoder = std::make_unique<VideoDecoder>([target](const QImage &image) {
            // Streaming thread: hand the picture to the main thread.
            QMetaObject::invokeMethod(qApp, [target, image] {
                if (target) target->showFrame(image);
            }, Qt::QueuedConnection);
        });
        QString why;
        if (!decoder->start(&why)) {
            std::fprintf(stderr, "velocast-receiver: live view without video: %s\n", why.toUtf8().constData());
            decoder.reset();
        }
        if (!p.isSet(noAudio)) {
            player = std::make_unique<AudioPlayer>();
            if (!player->start(&why)) {
                std::fprintf(stderr, "velocast-receiver: live view without sound: %s\n", why.toUtf8().constData());
                player.reset();
            }
        }
        QObject::connect(receiver.media(), &MediaSink::videoFrame, view.get(), [&decoder](const QByteArray &au, bool) {
            if (decoder) decoder->pushAccessUnit(au);
        });
        QObject::connect(receiver.media(), &MediaSink::audioFrame, view.get(), [&player](const QByteArray &adts) {
            if (player) player->pushFrame(adts);
        });
        QObject::connect(view.get(), &LiveView::pointer, &receiver, [&receiver](const OutgoingMessage &m) {
            receiver.control()->sendToAll(m.id, m.property);
        });
        QObject::connect(receiver.eventLog(), &EventLog::logged, view.get(), [target](const QString &event, const QJsonObject &) {
            if (event == QLatin1String("media_closed") && target) target->clearPicture();
        });
        // Closing the window ends the run like "quit", with the report written.
        QApplication::setQuitOnLastWindowClosed(false);
        QObject::connect(view.get(), &LiveView::closed, &receiver, [&receiver] { receiver.enqueue({QStringLiteral("quit")}); });
        receiver.setSnapshotHandler([target](const QString &path) { return target && target->saveSnapshot(path); });
        view->show();
    }

    QString error;
    if (!receiver.start(&error)) fail(error);
    QTimer status;
    if (view) {
        view->setConnectCode(receiver.connectCodeText());
        // Once a second: the open video stream's size and rate over the picture.
        QObject::connect(&status, &QTimer::timeout, view.get(), [&receiver, &view] {
            const QJsonArray streams = receiver.media()->report().value(QStringLiteral("video")).toArray();
            const QJsonObject v = streams.isEmpty() ? QJsonObject() : streams.last().toObject();
            if (!v.value(QStringLiteral("open")).toBool()) {
                view->setStatus({});
                return;
            }
            view->setStatus(QStringLiteral("%1  |  %2x%3  %4 fps  %5 kb/s  |  %6 violations")
                                .arg(receiver.connectCodeText())
                                .arg(v.value(QStringLiteral("width")).toInt())
                                .arg(v.value(QStringLiteral("height")).toInt())
                                .arg(v.value(QStringLiteral("fps")).toDouble(), 0, 'f', 1)
                                .arg(qRound(v.value(QStringLiteral("bit_rate")).toDouble() / 1000))
                                .arg(receiver.media()->violationCount()));
        });
        status.start(1000);
    }
    receiver.enqueue(p.values(command));
    const int rc = app.exec();
    // Stop the pipelines first: their threads call into the view.
    player.reset();
    decoder.reset();
    return rc;
}
