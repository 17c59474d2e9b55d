#include "Extend/CommonTool/Airplay/AirplayDNSRegistration/dnssd_registration.h"

#include "common/log.h"
#include "common/main_thread.h"

#include <avahi-common/domain.h>

#include <QStringList>

#include <cstdio>
#include <cstdlib>

namespace velocast {

namespace {

constexpr char kSourceLocation[] = "Extend/CommonTool/Airplay/AirplayDNSRegistration/DNSSDRegistration";

[[noreturn]] void assertionFailure(const char *function, int line, const char *condition)
{
    std::fprintf(stderr, "*** Assertion failure in %s, %s:%d\n*** Invalid parameter not satisfying: %s\n", function,
        kSourceLocation, line, condition);
    std::fflush(stderr);
    std::abort();
}

} // namespace

// The condition text is the registration's own wording of the rule, printed as written.
#define DNSSD_ASSERT(cond, text)                                                                                       \
    do {                                                                                                               \
        if (!(cond)) assertionFailure(__func__, __LINE__, text);                                                       \
    } while (0)

QString DNSSDError::description() const
{
    return QStringLiteral("Error Domain=%1 Code=%2").arg(domain()).arg(code);
}

DNSSDRegistration::DNSSDRegistration(const QString &domain, const QString &type, const QString &name, qint64 port)
    : life_(std::make_shared<DNSSDRegistration *>(this))
{
    DNSSD_ASSERT(!domain.startsWith(QLatin1Char('.')), "! [domain hasPrefix:@\".\"]");
    DNSSD_ASSERT(!type.isNull(), "type != nil");
    DNSSD_ASSERT(type.size() != 0, "[type length] != 0");
    DNSSD_ASSERT(!type.startsWith(QLatin1Char('.')), "! [type hasPrefix:@\".\"]");
    DNSSD_ASSERT(port > 0, "port > 0");
    DNSSD_ASSERT(port < 65536, "port < 65536");
    domain_ = domain;
    if (!domain_.isEmpty() && !domain_.endsWith(QLatin1Char('.'))) domain_ += QLatin1Char('.');
    type_ = type;
    if (!type_.endsWith(QLatin1Char('.'))) type_ += QLatin1Char('.');
    name_ = name;
    port_ = quint16(port);
}

DNSSDRegistration::DNSSDRegistration(const QString &domain, const QString &type, const QString &name,
    const QString &host, qint64 port, const std::optional<TxtRecord> &txtRecord)
    : DNSSDRegistration(domain, type, name, port)
{
    host_ = host;
    txtRecord_ = txtRecord;
}

DNSSDRegistration::~DNSSDRegistration()
{
    life_.reset();
    sdRef_.reset(); // withdraws without telling anybody
}

QString DNSSDRegistration::domain() const
{
    std::lock_guard lock(mutex_);
    return domain_;
}
QString DNSSDRegistration::type() const
{
    std::lock_guard lock(mutex_);
    return type_;
}
QString DNSSDRegistration::name() const
{
    std::lock_guard lock(mutex_);
    return name_;
}

QString DNSSDRegistration::targetHost(const QString &name, const QString &type, const QString &domain)
{
    const QByteArray label = name.toUtf8();
    QByteArray escaped(label.size() * 4 + 1, '\0');
    char *out = escaped.data();
    size_t room = size_t(escaped.size());
    QString first;
    if (avahi_escape_label(label.constData(), size_t(label.size()), &out, &room)) first = QString::fromUtf8(escaped.constData());
    return QStringLiteral("%1.%2%3").arg(first, type, domain);
}

QByteArray DNSSDRegistration::txtData(const std::optional<TxtRecord> &txt)
{
    QByteArray data;
    if (!txt) return data;
    int dropped = 0;
    for (auto it = txt->cbegin(); it != txt->cend(); ++it) {
        const QString entry = QStringLiteral("%1=%2").arg(it.key(), it.value());
        const QByteArray utf8 = entry.toUtf8();
        // A TXT string holds at most 255 bytes, and the buffer ends at kTxtBufferSize.
        if (utf8.size() > 255 || data.size() + 1 + utf8.size() > kTxtBufferSize) {
            ++dropped;
            continue;
        }
        data.append(char(entry.size() & 0xff));
        data.append(utf8);
    }
    if (dropped > 0) {
        logLine(lcAirplay(),
            QStringLiteral("txt record: %1 of %2 entries do not fit and are left out").arg(dropped).arg(txt->size()));
    }
    return data;
}

QByteArray DNSSDRegistration::addressData(const QString &host)
{
    const QStringList parts = host.split(QLatin1Char('.'));
    QByteArray data;
    for (int i = 0; i < 4; ++i) {
        // Leading decimal digits, as an integer reader takes them ("12x" is 12, "x" is 0).
        qint64 value = 0;
        if (i < parts.size()) {
            const QString part = parts.at(i).trimmed();
            int n = 0;
            while (n < part.size() && n < 18 && part.at(n).isDigit() && part.at(n).unicode() < 128) ++n;
            value = part.left(n).toLongLong();
        }
        const char octet = char(value & 0xff);
        if (octet == 0) break; // the record is cut short at a zero octet
        data.append(octet);
    }
    return data;
}

void DNSSDRegistration::start()
{
    if (sdRef_) return;
    const QString domain = this->domain();
    const QString name = this->name();
    DnsSdServiceRecord record;
    record.name = name;
    record.type = type();
    record.domain = domain;
    record.target = targetHost(name, record.type, domain);
    record.port = port_;
    record.txt = txtData(txtRecord_);
    record.addressData = addressData(host_);
    record.localOnly = true;

    std::weak_ptr<DNSSDRegistration *> weak = life_;
    DnsSdResponder &responder = responder_ ? *responder_ : DnsSdResponder::platform();
    DnsSdPublishResult result = responder.publish(record, [weak](DnsSdPublication *ref, DnsSdReply reply, int error) {
        if (auto self = weak.lock()) (*self)->registerReply(ref, reply, error);
    });
    if (result.error != 0) {
        stopWithError(DNSSDError{result.error}, true);
        return;
    }
    sdRef_ = std::move(result.ref);
    recordRef_ = result.addressError == 0;
    if (delegate_) delegate_->dnssdRegistrationWillRegister(this);
    if (!recordRef_) logLine(lcAirplay(), QStringLiteral("add record error"));
}

void DNSSDRegistration::stop()
{
    stopWithError(std::nullopt, false);
}

void DNSSDRegistration::stopWithError(const std::optional<DNSSDError> &error, bool notify)
{
    if (error && notify && delegate_) delegate_->dnssdRegistrationDidNotRegister(this, *error);
    if (sdRef_) {
        sdRef_.reset();
        recordRef_ = false;
    }
    registeredDomain_.clear();
    registeredName_.clear();
    if (notify && delegate_) delegate_->dnssdRegistrationDidStop(this);
}

void DNSSDRegistration::registerReply(DnsSdPublication *ref, DnsSdReply reply, int error)
{
    DNSSD_ASSERT(isMainThread(), "[NSThread isMainThread]");
    DNSSD_ASSERT(magic_ == kMagic, "[obj isKindOfClass:[DNSSDRegistration class]]");
    DNSSD_ASSERT(ref == sdRef_.get(), "sdRef == obj.sdRef");
    // The responder answers for the records this registration handed it, so the reply's
    // domain is "local." and its name ours.
    const QString local = QStringLiteral("local.");
    switch (reply) {
    case DnsSdReply::Registered:
        didRegisterWithDomain(local, name());
        break;
    case DnsSdReply::Conflict:
        didUnregisterWithDomain(local, name());
        break;
    case DnsSdReply::Failed:
        stopWithError(DNSSDError{error}, true);
        break;
    }
}

void DNSSDRegistration::didRegisterWithDomain(const QString &domain, const QString &name)
{
    DNSSD_ASSERT(domain.compare(QLatin1String("local"), Qt::CaseInsensitive) != 0,
        "[domain caseInsensitiveCompare:@\"local\"] != NSOrderedSame");
    if (domain.compare(QLatin1String("local."), Qt::CaseInsensitive) != 0) return;
    registeredDomain_ = domain;
    registeredName_ = name;
    if (delegate_) delegate_->dnssdRegistrationDidRegister(this);
}

void DNSSDRegistration::didUnregisterWithDomain(const QString &domain, const QString &)
{
    DNSSD_ASSERT(domain.compare(QLatin1String("local"), Qt::CaseInsensitive) != 0,
        "[domain caseInsensitiveCompare:@\"local\"] != NSOrderedSame");
    if (domain.compare(QLatin1String("local."), Qt::CaseInsensitive) != 0) return;
    stopWithError(DNSSDError{dnssd_error::kNameConflict}, true);
}

} // namespace velocast
