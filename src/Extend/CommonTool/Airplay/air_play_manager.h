#pragma once

#include "Extend/CommonTool/Airplay/AirplayDNSRegistration/dnssd_registration.h"

#include <QString>

#include <functional>
#include <memory>
#include <mutex>
#include <optional>

namespace velocast {

// The process-wide advertiser: makes one receiver appear on this machine as a video
// (_airplay._tcp.) and an audio (_raop._tcp.) service in "local.", and reports once whether
// both were registered. Main thread only (the lock serialises the result collection).
class AirPlayManager : public DNSSDRegistrationDelegate {
public:
    using CompletionBlock = std::function<void(bool success, const std::optional<DNSSDError> &error)>;

    static AirPlayManager &sharedManager();

    // Missing values are null strings / nullopt; any missing name, address or TXT dictionary
    // registers nothing and never calls the handler. An empty handler keeps the earlier one.
    void connectToAppleTVAirplayName(const QString &airplayName, const QString &airtunesName, const QString &address,
        qint64 vedioPort, qint64 airtunesPort, const std::optional<TxtRecord> &airplayTxt,
        const std::optional<TxtRecord> &airtunesTxt, CompletionBlock andBlock);
    // "<device id without colons>@<name>", or a null string when either is missing.
    QString audioNameWithDeviceID(const QString &deviceID) const;
    void disconnect();
    // Checks a full service name ("Room._airplay._tcp.local.") and builds its PTR data; the
    // responder here cannot flush a record, so a valid request ends in "reconfirm record error".
    void reconfirmRecord(const QString &fullName);
    // The PTR data for reconfirmRecord, or nullopt (after the message on standard error).
    static std::optional<QByteArray> reconfirmRecordData(const QString &fullName, QString *recordName = nullptr);

    // Delegate calls from the two registrations.
    void dnssdRegistrationDidRegister(DNSSDRegistration *registration) override;
    void dnssdRegistrationDidNotRegister(DNSSDRegistration *registration, const DNSSDError &error) override;

    DNSSDRegistration *currentVideoRegistration() const { return videoRegistration.get(); }
    DNSSDRegistration *currentAudioRegistration() const { return audioRegistration.get(); }
    int videoFlagValue() const;
    int audioFlagValue() const;
    // The responder new registrations use (the platform one by default).
    void setResponder(DnsSdResponder *responder) { responder_ = responder; }

    AirPlayManager();
    ~AirPlayManager() override;

private:
    void _resetFlag();
    void _connect();
    void _checkCallbackBlock(const std::optional<DNSSDError> &error);

    mutable std::recursive_mutex lock_;
    QString _name;
    QString _aName;
    QString _address;
    qint64 _vPort = 0;
    qint64 _aPort = 0;
    std::optional<TxtRecord> _air_txt;
    std::optional<TxtRecord> _a_txt;
    CompletionBlock callbackBlock;
    std::unique_ptr<DNSSDRegistration> videoRegistration;
    std::unique_ptr<DNSSDRegistration> audioRegistration;
    int videoFlag = 0;
    int audioFlag = 0;
    DnsSdResponder *responder_ = nullptr;
};

} // namespace velocast
