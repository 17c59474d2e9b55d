#pragma once

#include <QByteArray>
#include <QString>

#include <cstdint>
#include <functional>
#include <memory>

namespace velocast {

// DNSServiceErrorType values the registration reports (host byte order, negative).
namespace dnssd_error {
inline constexpr int kUnknown = -65537;
inline constexpr int kBadParam = -65540;
inline constexpr int kUnsupported = -65544;
inline constexpr int kNameConflict = -65548;
inline constexpr int kServiceNotRunning = -65563;
} // namespace dnssd_error

// What one registration asks the machine's DNS-SD responder to publish: a service instance
// (PTR/SRV/TXT) and an IPv4 address record under the instance's target host name.
struct DnsSdServiceRecord {
    QString name;           // instance name, may be empty (the responder picks one)
    QString type;           // "_airplay._tcp." (trailing dot optional)
    QString domain;         // "local." or empty for the default domain
    QString target;         // SRV target host name, already escaped, e.g. "Room._airplay._tcp.local."
    quint16 port = 0;       // host byte order, 1..65535
    QByteArray txt;         // TXT rdata as length-prefixed strings; empty: no TXT data
    QByteArray addressData; // rdata of the A record under the target
    bool localOnly = true;  // visible on this machine only
};

// A live publication; destroying it withdraws every record it published.
class DnsSdPublication {
public:
    virtual ~DnsSdPublication() = default;
};

// Replies from the responder, always on the main thread. `error` is a DNSServiceErrorType
// (0 with Registered).
enum class DnsSdReply { Registered, Conflict, Failed };
using DnsSdReplyHandler = std::function<void(DnsSdPublication *ref, DnsSdReply reply, int error)>;

struct DnsSdPublishResult {
    int error = 0;                            // non-zero: nothing was published
    std::unique_ptr<DnsSdPublication> ref;    // set when error == 0
    int addressError = 0;                     // the A record was refused (the service stays)
};

// The machine's DNS-SD responder. The Linux one is avahi-daemon through libavahi-client
// (avahi_registration.cpp). Main thread only.
class DnsSdResponder {
public:
    virtual ~DnsSdResponder() = default;
    // Hands the records to the responder. The handler is called later, on the main thread,
    // until the publication is destroyed.
    virtual DnsSdPublishResult publish(const DnsSdServiceRecord &record, DnsSdReplyHandler handler) = 0;

    static DnsSdResponder &platform();
};

} // namespace velocast
