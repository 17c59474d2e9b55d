#pragma once

#include "Extend/CommonTool/Airplay/AirplayDNSRegistration/dnssd_registration.h"
#include "common/notification_center.h"

#include <QString>
#include <QVariantMap>

#include <functional>
#include <mutex>
#include <optional>
#include <vector>

namespace velocast {

// The second casting road: instead of mirroring, ask the connected receiver for its service
// parameters and advertise it on this machine (AirPlayManager), so that the desktop's own
// facilities (the sound server's RAOP discovery) can use it. Driven by notifications:
// AIRPLAYCONTROL_START / AIRPLAYCONTROL_STOP from the panel, NETCONTROL_RECEIVE in,
// NETCONTROL_SEND out. Handlers run on the main thread (posts from elsewhere are moved there).
class AirplayControl {
public:
    using RegistBlock = std::function<void(bool success, const QString &name, const std::optional<DNSSDError> &error)>;

    // The fixed instance name of the video service.
    static QString airplayName() { return QStringLiteral("Korvane无线投屏"); }

    static AirplayControl &shareControl();
    ~AirplayControl();

    QString ipStr() const;
    void setIpStr(const QString &ip);

    void start();
    void stop();
    void listenMsg(bool listen);
    bool isListening() const { return receiveObservation_.isActive(); }
    void sendStartMessage();
    void sendStopMessage();
    void sendDic(const QVariantMap &dic);
    void registAirplayServer(const QVariantMap &property, const QString &ipStr);
    void registAirplayServer(const QVariantMap &property, const QString &ipStr, RegistBlock block);
    void unRegist();
    void airplayBeDisconnected();
    void receiveMsg(const QVariant &object);

    // TXT pairs as the receiver sent them, checked: only string values, keys that are not
    // empty and hold no "=" or control characters, printable ASCII throughout. Entries that
    // fail are left out with a log line; nullopt when the value is not a dictionary at all.
    static std::optional<TxtRecord> checkedTxt(const QVariant &value, const QString &what);

private:
    AirplayControl();
    void addNotice();

    mutable std::mutex mutex_;
    QString ipStr_;
    std::vector<Observation> notices_;
    Observation receiveObservation_;
};

} // namespace velocast
