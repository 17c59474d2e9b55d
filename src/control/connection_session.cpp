#include "control/connection_session.h"

#include "common/lenient_value.h"
#include "common/log.h"
#include "common/main_thread.h"
#include "common/notification_names.h"
#include "common/preferences.h"
#include "control/connect_code_tool.h"
#include "control/net_control.h"
#include "control/session_texts.h"

#include <QObject>
#include <QThreadPool>
#include <QTimer>

namespace velocast {

namespace {
using namespace text;

void post(const char *name, const QVariant &object = QVariant())
{
    NotificationCenter::defaultCenter().post(QString::fromLatin1(name), object);
}
} // namespace

ConnectionSession::ConnectionSession(ConnectionSessionView &view, NetControl &control)
    : view_(view), control_(control), context_(std::make_unique<QObject>()),
      life_(std::make_shared<ConnectionSession *>(this))
{
    configNotice();
}

ConnectionSession::~ConnectionSession()
{
    observers_.clear();
    life_.reset(); // callbacks still in flight find nobody
}

void ConnectionSession::configNotice()
{
    auto &center = NotificationCenter::defaultCenter();
    auto add = [&](const char *name, std::function<void(const QVariant &)> f) {
        observers_.push_back(center.addObserver(QString::fromLatin1(name), std::move(f)));
    };
    add(notice::NETCONTROL_RECEIVE, [this](const QVariant &o) { messageWithNotice(o); });
    add(notice::NETCONTROL_DISCONNECT, [this](const QVariant &) { disconnectWithNotice(); });
    add(notice::NETCONTROL_CONNECTBROKEN, [this](const QVariant &) { brokenWithNotice(); });
    add(notice::NOTICE_DISCONNECT, [this](const QVariant &) { disConnect(); });
    add(notice::NOTICE_RENAME, [this](const QVariant &o) { sendRenameMsg(o); });
    add(notice::NOTICE_CANCELREQUEST, [this](const QVariant &) { sendCancelRequest(); });
}

void ConnectionSession::onMain(std::function<void()> task)
{
    std::weak_ptr<ConnectionSession *> weak = life_;
    auto guarded = [weak, task = std::move(task)] {
        if (weak.lock()) task();
    };
    if (isMainThread()) {
        guarded();
    } else {
        runOnMainThread(std::move(guarded));
    }
}

QString ConnectionSession::ipStr() const
{
    std::lock_guard lock(mutex_);
    return ipStr_;
}

void ConnectionSession::setIpStr(const QString &ip)
{
    std::lock_guard lock(mutex_);
    ipStr_ = ip;
}

QString ConnectionSession::pcName() const
{
    std::lock_guard lock(mutex_);
    return pcName_;
}

void ConnectionSession::setReceiverAddressHandler(std::function<void(const QString &)> handler)
{
    std::lock_guard lock(mutex_);
    receiverAddressHandler_ = std::move(handler);
}

// --- Connecting ---------------------------------------------------------------------

void ConnectionSession::textCode(const QString &code)
{
    if (ipStr().isEmpty()) {
        onMain([this] { view_.reSetTextFields(); });
        return;
    }
    std::weak_ptr<ConnectionSession *> weak = life_;
    QThreadPool::globalInstance()->start([weak, code] {
        auto self = weak.lock();
        if (!self) return;
        (*self)->showLoading(true);
        (*self)->connectWithCode(code);
    });
}

void ConnectionSession::connectWithCode(const QString &code)
{
    const QString own = ipStr();
    logLine(lcControl(), QStringLiteral("decode: %1 %2").arg(code, own));
    ConnectCodeTool::getConnectInfoWithSixCode(code, own, [this](bool ok, const QVariant &result) {
        if (!ok) {
            connectFaildWithType(-1); // the decoder's own text is not shown
            return;
        }
        const QVariantMap info = result.toMap();
        connectIpStr(info.value(QStringLiteral("ip")).toString(), info.value(QStringLiteral("code")).toString());
    });
}

void ConnectionSession::connectIpStr(const QString &ip, const QString &code)
{
    logLine(lcControl(), QStringLiteral("connect... %1").arg(ip));
    std::weak_ptr<ConnectionSession *> weak = life_;
    // May be answered on the socket queue or the main thread.
    control_.connect(ip, [weak, ip, code](bool success) {
        auto self = weak.lock();
        if (!self) return;
        ConnectionSession *s = *self;
        s->onMain([s] { s->view_.reSetTextFields(); });
        logLine(lcControl(), QStringLiteral("connected:%1").arg(success ? QStringLiteral("YES") : QStringLiteral("NO")));
        if (!success) {
            s->connectFaildWithType(-1);
            return;
        }
        std::function<void(const QString &)> handler;
        {
            std::lock_guard lock(s->mutex_);
            handler = s->receiverAddressHandler_;
        }
        if (handler) handler(ip);
        s->sendConnectMsgWithIP(s->ipStr(), code);
    });
}

void ConnectionSession::sendConnectMsgWithIP(const QString &ip, const QString &code)
{
    control_.sendDic(QVariantMap{{QStringLiteral("id"), QStringLiteral("id_connect_request")},
        {QStringLiteral("property"),
            QVariantMap{{QStringLiteral("name"), CurrentDisplayName()}, {QStringLiteral("safe_code"), code},
                {QStringLiteral("ip"), ip}}}});
}

void ConnectionSession::connectSucessWithPCName(const QString &name)
{
    {
        std::lock_guard lock(mutex_);
        pcName_ = name;
    }
    control_.startBeatHeart(true);
    miracastAction();
    showLoading(false);
}

QString ConnectionSession::failureText(qint64 type)
{
    switch (type) {
    case -1:
        return kCodeOrNetworkError;
    case 1:
        return kReceiverFull;
    case 2:
        return kReceiverDeclined;
    default:
        return kConnectFailed;
    }
}

QString ConnectionSession::refusalText(qint64 type)
{
    if (type == 2) return kReceiverDeclined;
    if (type == 1) return kReceiverFull;
    return kCastFailed;
}

// The control connection and the heartbeat are left as they are: after a refusal the
// receiver closes the connection, which ends in a "disconnected" tip of its own.
void ConnectionSession::connectFaildWithType(qint64 type)
{
    showLoading(false);
    showTipInfo(failureText(type));
}

// --- Messages and endings (main thread) ---------------------------------------------

void ConnectionSession::messageWithNotice(const QVariant &object)
{
    const QString id = messageId(object);
    if (id.isEmpty()) return;
    const QVariantMap property = messageProperty(object.toMap());
    if (id == QLatin1String("id_connect_allow")) {
        connectSucessWithPCName(lenientString(property, QStringLiteral("name")));
    } else if (id == QLatin1String("id_connect_refuse")) {
        connectFaildWithType(lenientInt(property, QStringLiteral("msg")));
    } else if (id == QLatin1String("id_rename")) {
        const QString name = lenientString(property, QStringLiteral("name"));
        bool shown;
        {
            std::lock_guard lock(mutex_);
            pcName_ = name;
            shown = panelShown_;
        }
        if (shown) onMain([this, name] { view_.setCastingPanelName(name); });
    } else if (id == QLatin1String("id_permission_wait")) {
        post(notice::NOTICE_SHOWREQUESTVIEW);
    } else if (id == QLatin1String("id_permission_allow")) {
        post(notice::NOTICE_SCREENCAPTURESTATE, QVariantList{true, QString()});
    } else if (id == QLatin1String("id_permission_refuse")) {
        post(notice::NOTICE_SCREENCAPTURESTATE,
            QVariantList{false, refusalText(lenientInt(property, QStringLiteral("type")))});
    }
}

void ConnectionSession::disconnectWithNotice()
{
    logLine(lcControl(), QStringLiteral("disconnectWithNotice"));
    control_.startBeatHeart(false);
    miracastStop();
    post(notice::NOTICE_BEDISCONNECT);
    showLoading(false);
    showTipInfo(kDisconnected);
}

// The channel has already closed itself. NOTICE_BEDISCONNECT is not posted on this road.
void ConnectionSession::brokenWithNotice()
{
    control_.startBeatHeart(false);
    miracastStop();
    showTipInfo(kDisconnected);
    showLoading(false);
    logLine(lcControl(), QStringLiteral("brokenWithNotice"));
}

// Closing locally raises no NETCONTROL_DISCONNECT; the panel took itself off already. The
// channel closes only once every observer of the user's disconnect has run, whatever the
// order they subscribed in: the casting session's "id_permission_disconnect" goes out first.
void ConnectionSession::disConnect() { control_.disConnectSoon(); }

void ConnectionSession::sendRenameMsg(const QVariant &object)
{
    if (!object.isValid() || object.isNull()) return;
    control_.sendDic(QVariantMap{{QStringLiteral("id"), QStringLiteral("id_rename")},
        {QStringLiteral("property"), QVariantMap{{QStringLiteral("name"), object.toString()}}}});
}

void ConnectionSession::sendCancelRequest()
{
    control_.sendDic(QVariantMap{{QStringLiteral("id"), QStringLiteral("id_permission_cancel")},
        {QStringLiteral("property"), QVariantMap{{QStringLiteral("type"), 2}}}});
}

void ConnectionSession::cancelConnect() { control_.cancelConnect(); }

void ConnectionSession::cancelConnectButtonAction()
{
    showLoading(false);
    cancelConnect();
    onMain([this] { view_.reSetTextFields(); });
}

void ConnectionSession::miracastAction()
{
    onMain([this] {
        QString name;
        {
            std::lock_guard lock(mutex_);
            panelShown_ = true;
            name = pcName_;
        }
        view_.showCastingPanel(name);
    });
}

void ConnectionSession::miracastStop()
{
    onMain([this] {
        {
            std::lock_guard lock(mutex_);
            panelShown_ = false;
        }
        view_.removeCastingPanel();
    });
}

void ConnectionSession::showLoading(bool loading)
{
    onMain([this, loading] { view_.setLoadingVisible(loading); });
}

// Each tip hides 3 s after it was shown; a second tip within that time replaces the text,
// and the first one's timer still hides the line at its own time.
void ConnectionSession::showTipInfo(const QString &text)
{
    onMain([this, text] {
        view_.setTipVisible(true, text);
        QTimer::singleShot(kTipMs, context_.get(), [this] { view_.setTipVisible(false, QString()); });
    });
}

} // namespace velocast
