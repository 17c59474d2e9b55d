#include "support/reference_receiver.h"

#include "support/child_process.h"
#include "support/test_support.h"

#include <QJsonDocument>

namespace velocast::test {

namespace {
QList<QJsonObject> withValue(const QList<QJsonObject> &all, const char *key, const QString &value)
{
    QList<QJsonObject> out;
    for (const QJsonObject &e : all)
        if (e.value(key).toString() == value) out.append(e);
    return out;
}
} // namespace

#ifndef VELOCAST_RECEIVER_BIN
#define VELOCAST_RECEIVER_BIN ""
#endif

bool ReferenceReceiver::available() { return sizeof(VELOCAST_RECEIVER_BIN) > 1; }

ReferenceReceiver::ReferenceReceiver(QStringList extraArguments) : arguments_(std::move(extraArguments)) { }

ReferenceReceiver::~ReferenceReceiver()
{
    // Asked to quit; killed with the child process after a while.
    if (process_ && process_->write("quit\n")) process_->waitForFinished(std::chrono::seconds(3));
}

bool ReferenceReceiver::start()
{
    if (!available()) {
        error_ = QStringLiteral("built without the reference receiver");
        return false;
    }
    process_ = std::make_unique<ChildProcess>();
    const QStringList args = QStringList{"--bind", "127.0.0.1", "--control-port", "0", "--media-port", "0", "--headless",
                                 "--quiet", "--event-log", "-"}
        + arguments_;
    if (!process_->start(VELOCAST_RECEIVER_BIN, args, [this](const QByteArray &bytes) { readEvents(bytes); }, &error_))
        return false;
    if (!waitForEvent("listening")) {
        error_ = QStringLiteral("the receiver did not start listening");
        return false;
    }
    const QJsonObject l = events("listening").value(0);
    controlPort_ = quint16(l.value("control_port").toInt());
    mediaPort_ = quint16(l.value("media_port").toInt());
    code_ = l.value("code").toString();
    return controlPort_ != 0;
}

void ReferenceReceiver::command(const QString &line)
{
    if (process_) process_->write(line.toUtf8() + '\n');
}

void ReferenceReceiver::readEvents(const QByteArray &bytes)
{
    pending_ += bytes;
    for (qsizetype nl; (nl = pending_.indexOf('\n')) >= 0; pending_.remove(0, nl + 1)) {
        const QJsonDocument doc = QJsonDocument::fromJson(pending_.left(nl));
        if (!doc.isObject()) continue;
        events_.append(doc.object());
        ++counts_[doc.object().value("event").toString()];
    }
}

bool ReferenceReceiver::waitForEvent(const QString &event, const std::function<bool(const QJsonObject &)> &pred,
    std::chrono::milliseconds timeout)
{
    return waitUntil(
        [&] {
            const QList<QJsonObject> found = events(event);
            return std::any_of(found.begin(), found.end(), [&](const QJsonObject &e) { return !pred || pred(e); });
        },
        timeout);
}

QList<QJsonObject> ReferenceReceiver::events(const QString &event) const { return withValue(events_, "event", event); }

QList<QJsonObject> ReferenceReceiver::received(const QString &id) const
{
    return withValue(events("message_received"), "id", id);
}

} // namespace velocast::test
