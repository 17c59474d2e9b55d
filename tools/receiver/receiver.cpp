#include "receiver.h"

#include "connect_code.h"

#include <QFile>

#include <cstdio>
#include <unistd.h>

namespace velocast::receiver {

namespace {
constexpr qsizetype kMaxCommandLine = 4096;
}

Receiver::Receiver(const ReceiverOptions &options, QObject *parent)
    : QObject(parent), options_(options), log_(std::make_unique<EventLog>())
{
    if (options_.checkSafeCode) options_.control.safeCode = options_.safeCode;
    control_ = std::make_unique<ControlServer>(options_.control, log_.get());
    media_ = std::make_unique<MediaSink>(options_.media, log_.get());
    holdTimer_.setSingleShot(true);
    connect(&holdTimer_, &QTimer::timeout, this, [this] {
        if (!awaiting_.isEmpty()) log_->log(QStringLiteral("await_timeout"), {{QStringLiteral("what"), awaiting_}});
        awaiting_.clear();
        holding_ = false;
        runQueue();
    });
    connect(log_.get(), &EventLog::logged, this, &Receiver::onEvent);
}

Receiver::~Receiver() = default;

bool Receiver::start(QString *error)
{
    log_->setEcho(options_.echo);
    if (!log_->open(options_.eventLogPath, error)) return false;
    QString err;
    if (!control_->listen(options_.bind, options_.controlPort, &err)) {
        *error = QStringLiteral("control port %1: %2").arg(options_.controlPort).arg(err);
        return false;
    }
    if (!media_->listen(options_.bind, options_.mediaPort, &err)) {
        *error = QStringLiteral("media port %1: %2").arg(options_.mediaPort).arg(err);
        return false;
    }
    QHostAddress shown = options_.shownAddress;
    if (shown.isNull()) {
        const bool specific = options_.bind.protocol() == QAbstractSocket::IPv4Protocol && options_.bind != QHostAddress(QHostAddress::AnyIPv4);
        shown = specific ? options_.bind : primaryIpv4Address();
    }
    const auto code = connectCode(shown, options_.safeCode);
    code_ = code.value_or(QString());
    QJsonObject fields{{QStringLiteral("control_port"), control_->port()},
                       {QStringLiteral("media_port"), media_->port()},
                       {QStringLiteral("bind"), options_.bind.toString()},
                       {QStringLiteral("address"), shown.toString()},
                       {QStringLiteral("safe_code"), options_.safeCode},
                       {QStringLiteral("name"), options_.control.name}};
    if (code) {
        fields[QStringLiteral("code")] = *code;
        std::fprintf(stderr, "\n    %s\n    Connect code: %s   (address %s, safe code %d)\n\n", options_.control.name.toUtf8().constData(),
                     code->toUtf8().constData(), shown.toString().toUtf8().constData(), options_.safeCode);
    } else {
        fields[QStringLiteral("code_error")] =
            QStringLiteral("safe code %1 does not fit six digits for this address (largest: %2)").arg(options_.safeCode).arg(largestSafeCode(shown));
        std::fprintf(stderr, "No connect code: %s\n", fields[QStringLiteral("code_error")].toString().toUtf8().constData());
    }
    log_->log(QStringLiteral("listening"), fields);

    if (!options_.scenarioPath.isEmpty()) {
        QFile f(options_.scenarioPath);
        if (!f.open(QIODevice::ReadOnly | QIODevice::Text)) {
            *error = QStringLiteral("scenario %1: %2").arg(options_.scenarioPath, f.errorString());
            return false;
        }
        enqueue(QString::fromUtf8(f.readAll()).split(QLatin1Char('\n')));
    }
    if (options_.readStdin) {
        stdinNotifier_ = std::make_unique<QSocketNotifier>(STDIN_FILENO, QSocketNotifier::Read);
        connect(stdinNotifier_.get(), &QSocketNotifier::activated, this, &Receiver::onStdin);
    }
    return true;
}

void Receiver::onStdin()
{
    char buf[4096];
    const ssize_t n = ::read(STDIN_FILENO, buf, sizeof buf);
    if (n <= 0) {
        // End of input (or an error): keep running, driven by options and the scenario.
        stdinNotifier_->setEnabled(false);
        if (!stdinBuffer_.trimmed().isEmpty()) enqueue({QString::fromUtf8(stdinBuffer_)});
        stdinBuffer_.clear();
        return;
    }
    stdinBuffer_.append(buf, n);
    QStringList lines;
    qsizetype nl;
    while ((nl = stdinBuffer_.indexOf('\n')) >= 0) {
        lines.append(QString::fromUtf8(stdinBuffer_.left(nl)));
        stdinBuffer_.remove(0, nl + 1);
    }
    if (stdinBuffer_.size() > kMaxCommandLine) {
        log_->log(QStringLiteral("command_error"), {{QStringLiteral("error"), QStringLiteral("command line too long; dropped")}});
        stdinBuffer_.clear();
    }
    enqueue(lines);
}

void Receiver::enqueue(const QStringList &lines)
{
    queue_.append(lines);
    runQueue();
}

void Receiver::runQueue()
{
    while (!holding_ && !queue_.isEmpty()) {
        const QString line = queue_.takeFirst();
        const Command c = parseCommand(line, options_.commands);
        if (c.kind == CommandKind::Nothing) continue;
        if (c.kind == CommandKind::Invalid) {
            log_->log(QStringLiteral("command_error"), {{QStringLiteral("line"), line.left(200)}, {QStringLiteral("error"), c.error}});
            continue;
        }
        log_->log(QStringLiteral("command"), {{QStringLiteral("line"), line.trimmed().left(200)}});
        execute(c);
    }
}

void Receiver::execute(const Command &c)
{
    switch (c.kind) {
    case CommandKind::Send:
        for (const OutgoingMessage &m : c.messages)
            if (control_->sendToAll(m.id, m.property) == 0)
                log_->log(QStringLiteral("command_error"), {{QStringLiteral("error"), QStringLiteral("no control connection for %1").arg(m.id)}});
        break;
    case CommandKind::Close: control_->closeAll(); break;
    case CommandKind::Heartbeat: control_->setAnswerHeartbeats(c.flag); break;
    case CommandKind::Report: report(); break;
    case CommandKind::Snapshot:
        if (!snapshot_)
            log_->log(QStringLiteral("command_error"), {{QStringLiteral("error"), QStringLiteral("no live view to take a snapshot of")}});
        else if (snapshot_(c.text))
            log_->log(QStringLiteral("snapshot"), {{QStringLiteral("file"), c.text}});
        else
            log_->log(QStringLiteral("command_error"), {{QStringLiteral("error"), QStringLiteral("cannot write %1").arg(c.text)}});
        break;
    case CommandKind::Sleep:
        holding_ = true;
        holdTimer_.start(int(std::min<qint64>(c.number, INT32_MAX)));
        break;
    case CommandKind::Await:
        if (unconsumed_.value(c.text) > 0) {
            --unconsumed_[c.text];
            break;
        }
        holding_ = true;
        awaiting_ = c.text;
        holdTimer_.start(int(std::min<qint64>(c.number, INT32_MAX)));
        break;
    case CommandKind::Help: std::fputs(commandReference().toUtf8().constData(), stderr); break;
    case CommandKind::Quit:
        if (quitting_) break; // closing the window on the way out asks again
        quitting_ = true;
        media_->stop();
        report();
        log_->log(QStringLiteral("quit"));
        queue_.clear();
        emit quitRequested();
        break;
    case CommandKind::Nothing:
    case CommandKind::Invalid: break;
    }
}

void Receiver::onEvent(const QString &event, const QJsonObject &fields)
{
    // An await names an event ("control_connected") or a received message id
    // ("id_permission_request"); each occurrence satisfies one await.
    QStringList keys{event};
    if (event == QLatin1String("message_received")) keys.append(fields.value(QStringLiteral("id")).toString());
    for (const QString &key : keys) {
        if (holding_ && key == awaiting_) {
            awaiting_.clear();
            holding_ = false;
            holdTimer_.stop();
            QTimer::singleShot(0, this, &Receiver::runQueue); // not from inside the logger
        } else {
            ++unconsumed_[key];
        }
    }
}

void Receiver::report()
{
    const QString path = media_->writeReport();
    QJsonObject r = media_->report();
    if (!path.isEmpty()) r[QStringLiteral("file")] = path;
    log_->log(QStringLiteral("media_report"), r);
}

} // namespace velocast::receiver
