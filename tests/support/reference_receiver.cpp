#include "support/reference_receiver.h"

#include "support/child_process.h"
#include "support/test_support.h"

#include <QJsonDocument>

namespace velocast::test {

bool ReferenceReceiver::available()
{
#ifdef VELOCAST_RECEIVER_BIN
    return true;
#else
    return false;
#endif
}

ReferenceReceiver::ReferenceReceiver(QStringList extraArguments) : arguments_(std::move(extraArguments)) { }

ReferenceReceiver::~ReferenceReceiver()
{
    if (!process_) return;
    if (process_->isRunning()) {
        process_->write("quit\n");
        if (!process_->waitForFinished(std::chrono::seconds(3))) {
            process_->kill();
            process_->waitForFinished(std::chrono::seconds(3));
        }
    }
}

bool ReferenceReceiver::start()
{
#ifdef VELOCAST_RECEIVER_BIN
    // Errors of the receiver show up in the test's own output (its standard error is ours).
    process_ = std::make_unique<ChildProcess>();
    QStringList args{QStringLiteral("--bind"), QStringLiteral("127.0.0.1"), QStringLiteral("--control-port"),
        QStringLiteral("0"), QStringLiteral("--media-port"), QStringLiteral("0"), QStringLiteral("--headless"),
        QStringLiteral("--quiet"), QStringLiteral("--event-log"), QStringLiteral("-")};
    args += arguments_;
    if (!process_->start(QStringLiteral(VELOCAST_RECEIVER_BIN), args, [this](const QByteArray &bytes) { readEvents(bytes); }, &error_))
        return false;
    if (!waitForEvent(QStringLiteral("listening"))) {
        error_ = QStringLiteral("the receiver did not start listening");
        return false;
    }
    const QJsonObject l = events(QStringLiteral("listening")).value(0);
    controlPort_ = quint16(l.value(QStringLiteral("control_port")).toInt());
    mediaPort_ = quint16(l.value(QStringLiteral("media_port")).toInt());
    code_ = l.value(QStringLiteral("code")).toString();
    return controlPort_ != 0;
#else
    error_ = QStringLiteral("built without the reference receiver");
    return false;
#endif
}

void ReferenceReceiver::command(const QString &line)
{
    if (process_) process_->write(line.toUtf8() + '\n');
}

void ReferenceReceiver::readEvents(const QByteArray &bytes)
{
    pending_ += bytes;
    qsizetype nl;
    while ((nl = pending_.indexOf('\n')) >= 0) {
        const QByteArray line = pending_.left(nl);
        pending_.remove(0, nl + 1);
        const QJsonDocument doc = QJsonDocument::fromJson(line);
        if (!doc.isObject()) continue;
        events_.append(doc.object());
        ++counts_[doc.object().value(QStringLiteral("event")).toString()];
    }
}

bool ReferenceReceiver::waitForEvent(const QString &event, const std::function<bool(const QJsonObject &)> &pred,
    std::chrono::milliseconds timeout)
{
    return waitUntil(
        [&] {
            for (const QJsonObject &e : events_) {
                if (e.value(QStringLiteral("event")).toString() == event && (!pred || pred(e))) return true;
            }
            return false;
        },
        timeout);
}

QList<QJsonObject> ReferenceReceiver::events(const QString &event) const
{
    QList<QJsonObject> out;
    for (const QJsonObject &e : events_) {
        if (e.value(QStringLiteral("event")).toString() == event) out.append(e);
    }
    return out;
}

QList<QJsonObject> ReferenceReceiver::received(const QString &id) const
{
    QList<QJsonObject> out;
    for (const QJsonObject &e : events(QStringLiteral("message_received"))) {
        if (e.value(QStringLiteral("id")).toString() == id) out.append(e);
    }
    return out;
}

} // namespace velocast::test
