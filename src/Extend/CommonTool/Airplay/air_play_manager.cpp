#include "Extend/CommonTool/Airplay/air_play_manager.h"

#include <QStringList>

#include <cerrno>
#include <cstdio>

namespace velocast {

namespace {
const char *programName()
{
    return program_invocation_short_name;
}
} // namespace

AirPlayManager &AirPlayManager::sharedManager()
{
    // Never destroyed: its registrations must not outlive the event loop's poll objects.
    static AirPlayManager *manager = new AirPlayManager;
    return *manager;
}

AirPlayManager::AirPlayManager()
{
    _resetFlag();
}

AirPlayManager::~AirPlayManager() = default;

void AirPlayManager::_resetFlag()
{
    videoFlag = 0;
    audioFlag = 0;
}

int AirPlayManager::videoFlagValue() const
{
    std::lock_guard lock(lock_);
    return videoFlag;
}
int AirPlayManager::audioFlagValue() const
{
    std::lock_guard lock(lock_);
    return audioFlag;
}

void AirPlayManager::connectToAppleTVAirplayName(const QString &airplayName, const QString &airtunesName,
    const QString &address, qint64 vedioPort, qint64 airtunesPort, const std::optional<TxtRecord> &airplayTxt,
    const std::optional<TxtRecord> &airtunesTxt, CompletionBlock andBlock)
{
    disconnect();
    {
        std::lock_guard lock(lock_);
        _name = airplayName;
        _aName = airtunesName;
        _address = address;
        _vPort = vedioPort;
        _aPort = airtunesPort;
        _air_txt = airplayTxt;
        _a_txt = airtunesTxt;
        if (andBlock) callbackBlock = std::move(andBlock);
    }
    _connect();
}

void AirPlayManager::_connect()
{
    if (_name.isNull() || _aName.isNull() || _address.isNull() || !_air_txt || !_a_txt) return;
    videoRegistration = std::make_unique<DNSSDRegistration>(QStringLiteral("local."), QStringLiteral("_airplay._tcp."),
        _name, _address, _vPort, _air_txt);
    videoRegistration->setDelegate(this);
    videoRegistration->setResponder(responder_);
    videoRegistration->start();
    audioRegistration = std::make_unique<DNSSDRegistration>(QStringLiteral("local."), QStringLiteral("_raop._tcp."),
        _aName, _address, _aPort, _a_txt);
    audioRegistration->setDelegate(this);
    audioRegistration->setResponder(responder_);
    audioRegistration->start();
}

QString AirPlayManager::audioNameWithDeviceID(const QString &deviceID) const
{
    std::lock_guard lock(lock_);
    if (deviceID.isNull() || _name.isNull()) return {};
    return QStringLiteral("%1@%2").arg(deviceID.split(QLatin1Char(':')).join(QString()), _name);
}

void AirPlayManager::disconnect()
{
    std::lock_guard lock(lock_);
    _name = QString();
    _aName = QString();
    _address = QString();
    _resetFlag();
    if (videoRegistration) videoRegistration->stop();
    if (audioRegistration) audioRegistration->stop();
}

void AirPlayManager::dnssdRegistrationDidRegister(DNSSDRegistration *registration)
{
    std::lock_guard lock(lock_);
    if (registration == videoRegistration.get()) videoFlag = 1;
    if (registration == audioRegistration.get()) audioFlag = 1;
    _checkCallbackBlock(std::nullopt);
}

void AirPlayManager::dnssdRegistrationDidNotRegister(DNSSDRegistration *registration, const DNSSDError &error)
{
    std::lock_guard lock(lock_);
    if (registration == videoRegistration.get()) videoFlag = 2;
    if (registration == audioRegistration.get()) audioFlag = 2;
    _checkCallbackBlock(error);
}

void AirPlayManager::_checkCallbackBlock(const std::optional<DNSSDError> &error)
{
    std::lock_guard lock(lock_);
    if (!callbackBlock) return;
    if (videoFlag == 1 && audioFlag == 1) {
        CompletionBlock block = std::move(callbackBlock);
        callbackBlock = nullptr;
        block(true, std::nullopt);
    } else if (videoFlag == 2 || audioFlag == 2) {
        CompletionBlock block = std::move(callbackBlock);
        callbackBlock = nullptr;
        block(false, error);
    }
}

std::optional<QByteArray> AirPlayManager::reconfirmRecordData(const QString &fullName, QString *recordName)
{
    const QStringList parts = fullName.split(QLatin1Char('.'));
    if (parts.size() < 5 || !parts.last().isEmpty()) return std::nullopt;
    const QString protocol = parts.at(2).toLower();
    if (protocol != QLatin1String("_tcp") && protocol != QLatin1String("_udp")) return std::nullopt;
    if (recordName) *recordName = parts.mid(1).join(QLatin1Char('.'));
    QByteArray data;
    for (const QString &part : parts) {
        const QByteArray label = part.toUtf8();
        if (label.size() > 63) {
            std::fprintf(stderr, "%s: label too long: %s\n", programName(), label.constData());
            return std::nullopt;
        }
        data.append(char(label.size()));
        data.append(label);
        if (data.size() >= 256) {
            std::fprintf(stderr, "%s: record data too long\n", programName());
            return std::nullopt;
        }
    }
    return data;
}

void AirPlayManager::reconfirmRecord(const QString &fullName)
{
    if (!reconfirmRecordData(fullName)) return;
    // There is no way to ask this machine's responder to flush one record.
    std::fprintf(stderr, "%s: reconfirm record error: %d\n", programName(), dnssd_error::kUnsupported);
}

} // namespace velocast
