// One received chunk of the control stream: UTF-8 check, split at "#", JSON, the heartbeat's
// look at each message and the lenient readers the handlers use on the result.
#include "common/lenient_value.h"
#include "common/notification_center.h"
#include "common/notification_names.h"
#include "control/net_control.h"

#include <QCoreApplication>
#include <QLoggingCategory>

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv)
{
    static QCoreApplication app(*argc, *argv);
    QLoggingCategory::setFilterRules(QStringLiteral("velocast.*=false"));
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static velocast::NetControl control;
    // What the receiving handlers read of each message.
    static velocast::Observation reader = velocast::NotificationCenter::defaultCenter().addObserver(
        QString::fromLatin1(velocast::notice::NETCONTROL_RECEIVE), [](const QVariant &message) {
            const QVariantMap property = velocast::messageProperty(message.toMap());
            (void)velocast::messageId(message);
            for (const char *key : {"type", "count", "x", "msg", "timestamp"}) (void)velocast::lenientInt(property, QString::fromLatin1(key));
            (void)velocast::lenientBool(property, QStringLiteral("pause"));
            (void)velocast::lenientString(property, QStringLiteral("name"));
        });
    // A stream delivers at most 1024 bytes per chunk.
    for (size_t at = 0; at < size; at += 1024)
        control.postData(QByteArray(reinterpret_cast<const char *>(data) + at, qsizetype(std::min<size_t>(1024, size - at))));
    return 0;
}
