#include "Extend/CommonTool/Airplay/airplay_control.h"

#include "Extend/CommonTool/Airplay/air_play_manager.h"
#include "common/lenient_value.h"
#include "common/log.h"
#include "common/main_thread.h"
#include "common/notification_names.h"

#include <QStringList>

namespace velocast {

namespace {

QString name(const char *notice)
{
    return QString::fromLatin1(notice);
}

// Notifications may be posted from any thread; the advertiser works on the main thread.
void onMain(std::function<void()> task)
{
    if (isMainThread()) {
        task();
    } else {
        runOnMainThread(std::move(task));
    }
}

QString whyBadTxtEntry(const QString &key, const QVariant &value)
{
    if (key.isEmpty()) return QStringLiteral("empty key");
    for (const QChar c : key) {
        if (c == QLatin1Char('=')) return QStringLiteral("\"=\" in the key");
        if (c.unicode() < 0x20 || c.unicode() == 0x7f) return QStringLiteral("control character in the key");
    }
    if (value.typeId() != QMetaType::QString) return QStringLiteral("value is not a string");
    for (const QChar c : key + value.toString()) {
        // Only printable ASCII keeps each entry's length byte equal to its byte count.
        if (c.unicode() < 0x20 || c.unicode() > 0x7e) return QStringLiteral("not printable ASCII");
    }
    return {};
}

} // namespace

AirplayControl &AirplayControl::shareControl()
{
    // Never destroyed: it lives as long as the process, like the advertiser it drives.
    static AirplayControl *control = new AirplayControl;
    return *control;
}

AirplayControl::AirplayControl()
{
    addNotice();
}

AirplayControl::~AirplayControl()
{
    receiveObservation_.reset();
    notices_.clear();
}

void AirplayControl::addNotice()
{
    auto &center = NotificationCenter::defaultCenter();
    notices_.push_back(center.addObserver(name(notice::AIRPLAYCONTROL_START), [this](const QVariant &) {
        onMain([this] { start(); });
    }));
    notices_.push_back(center.addObserver(name(notice::AIRPLAYCONTROL_STOP), [this](const QVariant &) {
        onMain([this] { stop(); });
    }));
}

QString AirplayControl::ipStr() const
{
    std::lock_guard lock(mutex_);
    return ipStr_;
}

void AirplayControl::setIpStr(const QString &ip)
{
    std::lock_guard lock(mutex_);
    ipStr_ = ip;
}

void AirplayControl::start()
{
    listenMsg(true);
    sendStartMessage();
}

void AirplayControl::stop()
{
    listenMsg(false);
    sendStopMessage();
    unRegist();
}

void AirplayControl::listenMsg(bool listen)
{
    if (!listen) {
        receiveObservation_.reset();
        return;
    }
    receiveObservation_ = NotificationCenter::defaultCenter().addObserver(
        name(notice::NETCONTROL_RECEIVE), [this](const QVariant &object) {
            onMain([this, object] {
                if (isListening()) receiveMsg(object);
            });
        });
}

void AirplayControl::sendStartMessage()
{
    sendDic({{QStringLiteral("id"), QStringLiteral("id_permission_request")},
        {QStringLiteral("property"), QVariantMap{{QStringLiteral("type"), 2}}}});
}

void AirplayControl::sendStopMessage()
{
    sendDic({{QStringLiteral("id"), QStringLiteral("id_permission_disconnect")},
        {QStringLiteral("property"), QVariantMap{{QStringLiteral("type"), 2}}}});
}

void AirplayControl::sendDic(const QVariantMap &dic)
{
    NotificationCenter::defaultCenter().post(name(notice::NETCONTROL_SEND), dic);
}

void AirplayControl::registAirplayServer(const QVariantMap &property, const QString &ipStr)
{
    registAirplayServer(property, ipStr, [](bool, const QString &name, const std::optional<DNSSDError> &error) {
        logLine(lcAirplay(), QStringLiteral("regist airplay : %1 %2")
                                 .arg(name, error ? error->description() : QStringLiteral("(null)")));
    });
}

std::optional<TxtRecord> AirplayControl::checkedTxt(const QVariant &value, const QString &what)
{
    if (!value.isValid() || value.isNull()) {
        logLine(lcAirplay(), QStringLiteral("airplay config: no %1").arg(what));
        return std::nullopt;
    }
    if (value.typeId() != QMetaType::QVariantMap) {
        logLine(lcAirplay(), QStringLiteral("airplay config: %1 is not a dictionary").arg(what));
        return std::nullopt;
    }
    const QVariantMap map = value.toMap();
    TxtRecord txt;
    int dropped = 0;
    QString firstReason;
    for (auto it = map.cbegin(); it != map.cend(); ++it) {
        const QString why = whyBadTxtEntry(it.key(), it.value());
        if (why.isEmpty()) {
            txt.insert(it.key(), it.value().toString());
        } else if (dropped++ == 0) {
            firstReason = why;
        }
    }
    // One line for the lot: a receiver may send thousands of entries.
    if (dropped > 0) {
        logLine(lcAirplay(), QStringLiteral("airplay config: %1: %2 of %3 entries left out (%4)")
                                 .arg(what)
                                 .arg(dropped)
                                 .arg(map.size())
                                 .arg(firstReason));
    }
    return txt;
}

void AirplayControl::registAirplayServer(const QVariantMap &property, const QString &ipStr, RegistBlock block)
{
    const std::optional<TxtRecord> airplayTxt = checkedTxt(property.value(QStringLiteral("airplay_txt")),
        QStringLiteral("airplay_txt"));
    const std::optional<TxtRecord> airtunesTxt = checkedTxt(property.value(QStringLiteral("airtunes_txt")),
        QStringLiteral("airtunes_txt"));

    // The port must be a number (or numeric text) in 1..65535: anything else is the
    // receiver's mistake and is refused here rather than reaching the registration.
    const QVariant portValue = property.value(QStringLiteral("port"));
    bool portIsNumber = isNumberType(portValue);
    if (portValue.typeId() == QMetaType::QString) portValue.toString().trimmed().toDouble(&portIsNumber);
    const qint64 port = lenientInt(portValue);
    if (!portIsNumber || port < 1 || port > 65535) {
        logLine(lcAirplay(), QStringLiteral("airplay config: bad port %1, nothing advertised")
                                 .arg(portValue.toString().left(32)));
        return;
    }
    if (ipStr.isEmpty()) {
        logLine(lcAirplay(), QStringLiteral("airplay config: no receiver address, nothing advertised"));
        return;
    }

    const QString airplayName = AirplayControl::airplayName();
    QString deviceId;
    if (airplayTxt && airplayTxt->contains(QStringLiteral("deviceid"))) {
        deviceId = airplayTxt->value(QStringLiteral("deviceid"));
    } else {
        // Still advertised: the audio service's name then starts with "@".
        logLine(lcAirplay(), QStringLiteral("airplay config: no deviceid"));
    }
    const QString airtunesName
        = QStringLiteral("%1@%2").arg(deviceId.split(QLatin1Char(':')).join(QString()), airplayName);

    AirPlayManager::sharedManager().connectToAppleTVAirplayName(airplayName, airtunesName, ipStr, port, port,
        airplayTxt, airtunesTxt, [block, airplayName](bool success, const std::optional<DNSSDError> &error) {
            if (block) block(success, airplayName, error);
        });
}

void AirplayControl::unRegist()
{
    AirPlayManager::sharedManager().disconnect();
}

void AirplayControl::airplayBeDisconnected()
{
    NotificationCenter::defaultCenter().post(name(notice::NOTICE_BESTOP_AIRPLAY));
}

void AirplayControl::receiveMsg(const QVariant &object)
{
    const QString id = messageId(object);
    if (id == QLatin1String("id_permission_refuse")) {
        listenMsg(false);
    } else if (id == QLatin1String("id_airplay_screen_succeed")) {
        // Mirroring began on the receiver's side; nothing to do.
    } else if (id == QLatin1String("id_permission_disconnect")) {
        if (lenientInt(messageProperty(object.toMap()), QStringLiteral("type")) == 2) {
            listenMsg(false);
            unRegist();
            airplayBeDisconnected();
        }
    } else if (id == QLatin1String("id_airplay_config")) {
        registAirplayServer(messageProperty(object.toMap()), ipStr());
    }
}

} // namespace velocast
