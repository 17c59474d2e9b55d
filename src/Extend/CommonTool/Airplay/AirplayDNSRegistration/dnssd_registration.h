#pragma once

#include "Extend/CommonTool/Airplay/AirplayDNSRegistration/dnssd_responder.h"

#include <QMap>
#include <QString>

#include <memory>
#include <mutex>
#include <optional>

namespace velocast {

// TXT key/value pairs, walked in key order.
using TxtRecord = QMap<QString, QString>;

// A registration error: always in NSNetServicesErrorDomain, with a DNSServiceErrorType code.
struct DNSSDError {
    int code = 0;
    static QString domain() { return QStringLiteral("NSNetServicesErrorDomain"); }
    QString description() const;
};

class DNSSDRegistration;

// Every method is optional.
class DNSSDRegistrationDelegate {
public:
    virtual ~DNSSDRegistrationDelegate() = default;
    virtual void dnssdRegistrationWillRegister(DNSSDRegistration *) { }
    virtual void dnssdRegistrationDidRegister(DNSSDRegistration *) { }
    virtual void dnssdRegistrationDidNotRegister(DNSSDRegistration *, const DNSSDError &) { }
    virtual void dnssdRegistrationDidStop(DNSSDRegistration *) { }
};

// Advertises one DNS-SD service instance on behalf of another device (the receiver), with
// an IPv4 address record for it, visible on this machine only. Main thread only.
//
// Bad constructor arguments and inconsistent replies are programming errors: they abort
// with the failed condition and the source location. Data from the network must be checked
// before it gets here.
class DNSSDRegistration {
public:
    DNSSDRegistration(const QString &domain, const QString &type, const QString &name, qint64 port);
    DNSSDRegistration(const QString &domain, const QString &type, const QString &name, const QString &host,
        qint64 port, const std::optional<TxtRecord> &txtRecord);
    ~DNSSDRegistration();
    DNSSDRegistration(const DNSSDRegistration &) = delete;
    DNSSDRegistration &operator=(const DNSSDRegistration &) = delete;

    QString domain() const;
    QString type() const;
    QString name() const;
    QString host() const { return host_; }
    void setHost(const QString &host) { host_ = host; }
    quint16 port() const { return port_; }
    std::optional<TxtRecord> txtRecord() const { return txtRecord_; }
    void setTxtRecord(const std::optional<TxtRecord> &txt) { txtRecord_ = txt; }
    DNSSDRegistrationDelegate *delegate() const { return delegate_; }
    // Non-owning; the delegate must outlive the registration or clear itself.
    void setDelegate(DNSSDRegistrationDelegate *delegate) { delegate_ = delegate; }
    QString registeredDomain() const { return registeredDomain_; }
    QString registeredName() const { return registeredName_; }
    bool isStarted() const { return static_cast<bool>(sdRef_); }

    void start();
    void stop();
    void stopWithError(const std::optional<DNSSDError> &error, bool notify);
    void didRegisterWithDomain(const QString &domain, const QString &name);
    void didUnregisterWithDomain(const QString &domain, const QString &name);

    // The wire data start() publishes, for the given inputs.
    // TXT: per entry "key=value" one length byte (the entry's UTF-16 length, cut to 8 bits)
    // and its UTF-8 bytes, in key order, in a buffer of kTxtBufferSize bytes; an entry that
    // would not fit is left out (logged).
    static constexpr int kTxtBufferSize = 1024;
    static QByteArray txtData(const std::optional<TxtRecord> &txt);
    // A record: the four octets of the dotted address, cut short at the first zero octet.
    static QByteArray addressData(const QString &host);
    // "%@.%@%@" of (name, type, domain), with the name escaped as one DNS label.
    static QString targetHost(const QString &name, const QString &type, const QString &domain);

    // The responder start() uses (the platform one unless a test gives its own).
    void setResponder(DnsSdResponder *responder) { responder_ = responder; }

private:
    void registerReply(DnsSdPublication *ref, DnsSdReply reply, int error);

    mutable std::mutex mutex_; // the three read-only properties are atomic
    QString domain_;
    QString type_;
    QString name_;
    QString host_;
    quint16 port_ = 0;
    std::optional<TxtRecord> txtRecord_;
    DNSSDRegistrationDelegate *delegate_ = nullptr;
    QString registeredDomain_;
    QString registeredName_;
    std::unique_ptr<DnsSdPublication> sdRef_;
    bool recordRef_ = false; // the address record went in with the service
    DnsSdResponder *responder_ = nullptr;
    std::shared_ptr<DNSSDRegistration *> life_;
    static constexpr quint32 kMagic = 0x444e5353;
    quint32 magic_ = kMagic;
};

} // namespace velocast
