#include "event_log.h"

#include <QJsonDocument>

#include <cstdio>

namespace velocast::receiver {

EventLog::EventLog(QObject *parent) : QObject(parent) { clock_.start(); }

EventLog::~EventLog() = default;

bool EventLog::open(const QString &path, QString *error)
{
    file_.reset();
    if (path.isEmpty()) return true;
    auto file = std::make_unique<QFile>();
    bool ok;
    if (path == QLatin1String("-")) {
        ok = file->open(stdout, QIODevice::WriteOnly); // no Append: standard output may be a pipe, which cannot seek
    } else {
        file->setFileName(path);
        ok = file->open(QIODevice::WriteOnly | QIODevice::Truncate);
    }
    if (!ok) {
        if (error) *error = file->errorString();
        return false;
    }
    file_ = std::move(file);
    return true;
}

void EventLog::log(const QString &event, QJsonObject fields)
{
    QJsonObject line = fields;
    line.insert(QStringLiteral("t"), clock_.elapsed());
    line.insert(QStringLiteral("event"), event);
    const QByteArray json = QJsonDocument(line).toJson(QJsonDocument::Compact);
    if (file_) {
        file_->write(json);
        file_->write("\n");
        file_->flush();
    }
    if (echo_) {
        QByteArray text = QJsonDocument(fields).toJson(QJsonDocument::Compact);
        if (text.size() > 300) text = text.left(300) + "...";
        std::fprintf(stderr, "[%7.3f] %s %s\n", double(clock_.elapsed()) / 1000.0, event.toUtf8().constData(), text.constData());
    }
    emit logged(event, fields);
}

} // namespace velocast::receiver
