// The DNS-SD responder on Linux: avahi-daemon, reached through libavahi-client on the Qt
// event loop. One client per process, made when first needed and made again after the
// daemon went away.
#include "Extend/CommonTool/Airplay/AirplayDNSRegistration/dnssd_responder.h"
#include "Extend/CommonTool/Airplay/AirplayDNSRegistration/qt_avahi_poll.h"

#include "common/log.h"

#include <avahi-client/client.h>
#include <avahi-client/publish.h>
#include <avahi-common/defs.h>
#include <avahi-common/error.h>
#include <avahi-common/strlst.h>

#include <QTimer>

#include <net/if.h>

#include <algorithm>
#include <vector>

namespace velocast {

namespace {

int mapAvahiError(int avahiError)
{
    switch (avahiError) {
    case AVAHI_OK:
        return 0;
    case AVAHI_ERR_COLLISION:
        return dnssd_error::kNameConflict;
    case AVAHI_ERR_NO_DAEMON:
    case AVAHI_ERR_DISCONNECTED:
        return dnssd_error::kServiceNotRunning;
    case AVAHI_ERR_INVALID_HOST_NAME:
    case AVAHI_ERR_INVALID_DOMAIN_NAME:
    case AVAHI_ERR_INVALID_TTL:
    case AVAHI_ERR_INVALID_RECORD:
    case AVAHI_ERR_INVALID_SERVICE_NAME:
    case AVAHI_ERR_INVALID_SERVICE_TYPE:
    case AVAHI_ERR_INVALID_PORT:
    case AVAHI_ERR_INVALID_KEY:
    case AVAHI_ERR_INVALID_ADDRESS:
    case AVAHI_ERR_INVALID_OBJECT:
    case AVAHI_ERR_INVALID_INTERFACE:
    case AVAHI_ERR_INVALID_PROTOCOL:
    case AVAHI_ERR_INVALID_FLAGS:
    case AVAHI_ERR_INVALID_SERVICE_SUBTYPE:
    case AVAHI_ERR_INVALID_RDATA:
    case AVAHI_ERR_INVALID_DNS_CLASS:
    case AVAHI_ERR_INVALID_DNS_TYPE:
    case AVAHI_ERR_INVALID_ARGUMENT:
        return dnssd_error::kBadParam;
    default:
        return dnssd_error::kUnknown;
    }
}

// Avahi wants names without the final dot.
QByteArray withoutFinalDot(const QString &text)
{
    QByteArray utf8 = text.toUtf8();
    while (utf8.endsWith('.')) utf8.chop(1);
    return utf8;
}

class AvahiResponder;

class AvahiPublication final : public DnsSdPublication {
public:
    AvahiPublication(AvahiResponder &owner, DnsSdReplyHandler handler) : owner_(owner), handler_(std::move(handler)) { }
    ~AvahiPublication() override;

    static void groupCallback(AvahiEntryGroup *g, AvahiEntryGroupState state, void *userdata);
    // The daemon went away; the client frees the group itself.
    void lost();

    AvahiResponder &owner_;
    DnsSdReplyHandler handler_;
    AvahiEntryGroup *group_ = nullptr;
    bool committed_ = false;
};

class AvahiResponder final : public DnsSdResponder {
public:
    DnsSdPublishResult publish(const DnsSdServiceRecord &record, DnsSdReplyHandler handler) override;

    void forget(AvahiPublication *p) { live_.erase(std::remove(live_.begin(), live_.end(), p), live_.end()); }
    bool isLive(AvahiPublication *p) const { return std::find(live_.begin(), live_.end(), p) != live_.end(); }

private:
    static void clientCallback(AvahiClient *c, AvahiClientState state, void *userdata);
    int ensureClient();

    AvahiClient *client_ = nullptr;
    bool failed_ = false;
    std::vector<AvahiPublication *> live_;
};

AvahiPublication::~AvahiPublication()
{
    owner_.forget(this);
    // Freeing the group withdraws its records (the daemon sends goodbye packets).
    if (group_) avahi_entry_group_free(group_);
}

void AvahiPublication::lost()
{
    group_ = nullptr;
    owner_.forget(this);
    handler_(this, DnsSdReply::Failed, dnssd_error::kServiceNotRunning);
}

void AvahiPublication::groupCallback(AvahiEntryGroup *g, AvahiEntryGroupState state, void *userdata)
{
    auto *self = static_cast<AvahiPublication *>(userdata);
    // States before the commit (the group reports UNCOMMITED as soon as it exists) and the
    // probing phase are not replies.
    if (!self->committed_ || !self->owner_.isLive(self) || self->group_ != g) return;
    switch (state) {
    case AVAHI_ENTRY_GROUP_ESTABLISHED:
        self->handler_(self, DnsSdReply::Registered, 0);
        break;
    case AVAHI_ENTRY_GROUP_COLLISION:
        self->handler_(self, DnsSdReply::Conflict, dnssd_error::kNameConflict);
        break;
    case AVAHI_ENTRY_GROUP_FAILURE:
        self->handler_(self, DnsSdReply::Failed, mapAvahiError(avahi_client_errno(avahi_entry_group_get_client(g))));
        break;
    default:
        break;
    }
}

void AvahiResponder::clientCallback(AvahiClient *c, AvahiClientState state, void *userdata)
{
    auto *self = static_cast<AvahiResponder *>(userdata);
    if (state != AVAHI_CLIENT_FAILURE) return;
    logLine(lcAirplay(), QStringLiteral("avahi: %1").arg(QString::fromUtf8(avahi_strerror(avahi_client_errno(c)))));
    self->failed_ = true;
    // Every live publication is gone with the daemon. A handler may end other publications,
    // so each one is looked up again before it is told.
    const std::vector<AvahiPublication *> before = self->live_;
    for (AvahiPublication *p : before) {
        if (self->isLive(p)) p->lost();
    }
    // The client cannot be freed from inside its own callback.
    if (self->client_ == c || !self->client_) {
        QTimer::singleShot(0, [self, c] {
            if (self->client_ == c) {
                avahi_client_free(c);
                self->client_ = nullptr;
                self->failed_ = false;
            }
        });
    }
}

int AvahiResponder::ensureClient()
{
    if (client_ && failed_) {
        avahi_client_free(client_);
        client_ = nullptr;
        failed_ = false;
    }
    if (client_) return AVAHI_OK;
    int error = AVAHI_OK;
    client_ = avahi_client_new(qtAvahiPoll(), AvahiClientFlags(0), clientCallback, this, &error);
    if (!client_) {
        logLine(lcAirplay(), QStringLiteral("avahi: %1").arg(QString::fromUtf8(avahi_strerror(error))));
        return error == AVAHI_OK ? AVAHI_ERR_FAILURE : error;
    }
    return AVAHI_OK;
}

DnsSdPublishResult AvahiResponder::publish(const DnsSdServiceRecord &record, DnsSdReplyHandler handler)
{
    DnsSdPublishResult result;
    if (const int e = ensureClient(); e != AVAHI_OK) {
        result.error = mapAvahiError(e);
        return result;
    }
    // Visible on this machine only: the loopback interface. (Avahi's "any interface" index
    // would publish on the network, the opposite.)
    AvahiIfIndex ifindex = AVAHI_IF_UNSPEC;
    if (record.localOnly) {
        const unsigned lo = if_nametoindex("lo");
        if (lo == 0) {
            logLine(lcAirplay(), QStringLiteral("avahi: no loopback interface"));
            result.error = dnssd_error::kUnknown;
            return result;
        }
        ifindex = AvahiIfIndex(lo);
    }

    AvahiStringList *txt = nullptr;
    if (!record.txt.isEmpty()
        && avahi_string_list_parse(record.txt.constData(), size_t(record.txt.size()), &txt) != AVAHI_OK) {
        logLine(lcAirplay(), QStringLiteral("avahi: TXT data does not parse"));
        result.error = dnssd_error::kBadParam;
        return result;
    }

    auto publication = std::make_unique<AvahiPublication>(*this, std::move(handler));
    AvahiEntryGroup *g = avahi_entry_group_new(client_, AvahiPublication::groupCallback, publication.get());
    if (!g) {
        avahi_string_list_free(txt);
        result.error = mapAvahiError(avahi_client_errno(client_));
        return result;
    }
    publication->group_ = g;
    live_.push_back(publication.get());

    const QByteArray name = record.name.toUtf8();
    const QByteArray type = withoutFinalDot(record.type);
    const QByteArray domain = withoutFinalDot(record.domain);
    const QByteArray target = withoutFinalDot(record.target);
    int e = avahi_entry_group_add_service_strlst(g, ifindex, AVAHI_PROTO_INET, AvahiPublishFlags(0), name.constData(),
        type.constData(), domain.isEmpty() ? nullptr : domain.constData(), target.constData(), record.port, txt);
    avahi_string_list_free(txt);
    if (e != AVAHI_OK) {
        logLine(lcAirplay(), QStringLiteral("avahi: add service: %1").arg(QString::fromUtf8(avahi_strerror(e))));
        result.error = mapAvahiError(e);
        return result; // the publication frees the group
    }
    // Records cannot be added after the commit, so the address goes in first. TTL 0 is
    // refused by Avahi; 120 s is the usual host record lifetime.
    e = avahi_entry_group_add_record(g, ifindex, AVAHI_PROTO_INET, AvahiPublishFlags(0), target.constData(),
        AVAHI_DNS_CLASS_IN, AVAHI_DNS_TYPE_A, 120, record.addressData.constData(), size_t(record.addressData.size()));
    if (e != AVAHI_OK) result.addressError = mapAvahiError(e);

    e = avahi_entry_group_commit(g);
    if (e != AVAHI_OK) {
        result.error = mapAvahiError(e);
        return result;
    }
    publication->committed_ = true;
    result.ref = std::move(publication);
    return result;
}

} // namespace

DnsSdResponder &DnsSdResponder::platform()
{
    // Lives as long as the process: Avahi's client must outlast every publication.
    static AvahiResponder *responder = new AvahiResponder;
    return *responder;
}

} // namespace velocast
