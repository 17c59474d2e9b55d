#include "net/linux/nl80211_wifi.h"

#include "net/linux/netlink_messages.h"

#include <QDir>

#include <algorithm>
#include <memory>

#include <linux/nl80211.h>
#include <netlink/genl/ctrl.h>
#include <netlink/genl/genl.h>
#include <netlink/msg.h>
#include <netlink/netlink.h>
#include <sys/socket.h>

namespace velocast {

namespace {

struct NlSockDeleter {
    void operator()(nl_sock *s) const { nl_socket_free(s); }
};
struct NlMsgDeleter {
    void operator()(nl_msg *m) const { nlmsg_free(m); }
};

// A wireless device has a "wireless" (or "phy80211") entry under its sysfs node.
bool anyWirelessDevice()
{
    const QDir net(QStringLiteral("/sys/class/net"));
    const auto names = net.entryList(QDir::Dirs | QDir::NoDotAndDotDot | QDir::System);
    return std::ranges::any_of(names, [&](const QString &name) {
        return net.exists(name + QStringLiteral("/wireless")) || net.exists(name + QStringLiteral("/phy80211"));
    });
}

struct DumpContext {
    std::uint16_t familyId;
    std::vector<netlink::WifiInterfaceMessage> interfaces;
};

// libnl has validated the netlink header against the datagram; the attributes are ours to check.
int onInterface(nl_msg *msg, void *arg)
{
    auto *context = static_cast<DumpContext *>(arg);
    const nlmsghdr *header = nlmsg_hdr(msg);
    const netlink::Bytes message(reinterpret_cast<const std::uint8_t *>(header), header->nlmsg_len);
    if (auto wifi = netlink::parseWifiInterface(message, context->familyId)) context->interfaces.push_back(std::move(*wifi));
    return NL_OK;
}

} // namespace

std::vector<WifiInterface> readWifiInterfaces()
{
    if (!anyWirelessDevice()) return {};

    std::unique_ptr<nl_sock, NlSockDeleter> sock(nl_socket_alloc());
    if (!sock || genl_connect(sock.get()) < 0) return {};
    // The kernel answers at once; the time-out only guards against never hearing back.
    const timeval timeout{1, 0};
    ::setsockopt(nl_socket_get_fd(sock.get()), SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);

    const int family = genl_ctrl_resolve(sock.get(), "nl80211");
    if (family < 0) return {};

    std::unique_ptr<nl_msg, NlMsgDeleter> request(nlmsg_alloc());
    if (!request
        || !genlmsg_put(request.get(), NL_AUTO_PORT, NL_AUTO_SEQ, family, 0, NLM_F_DUMP, NL80211_CMD_GET_INTERFACE, 0))
        return {};
    DumpContext context{std::uint16_t(family), {}};
    if (nl_socket_modify_cb(sock.get(), NL_CB_VALID, NL_CB_CUSTOM, onInterface, &context) < 0) return {};
    if (nl_send_auto(sock.get(), request.get()) < 0) return {};
    if (nl_recvmsgs_default(sock.get()) < 0) return {};

    std::ranges::sort(context.interfaces, {}, &netlink::WifiInterfaceMessage::index);
    std::vector<WifiInterface> result;
    for (auto &wifi : context.interfaces) result.push_back(WifiInterface{std::move(wifi.name), std::move(wifi.ssid)});
    return result;
}

} // namespace velocast
