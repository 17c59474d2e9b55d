#include "capture/session/linux/portal_session.h"

#include "common/log.h"

#include <QDBusArgument>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDBusUnixFileDescriptor>

#include <fcntl.h>
#include <unistd.h>

namespace velocast::capture {

namespace {

const QString kService = QStringLiteral("org.freedesktop.portal.Desktop");
const QString kPath = QStringLiteral("/org/freedesktop/portal/desktop");
const QString kScreenCast = QStringLiteral("org.freedesktop.portal.ScreenCast");
const QString kRemoteDesktop = QStringLiteral("org.freedesktop.portal.RemoteDesktop");
const QString kRequest = QStringLiteral("org.freedesktop.portal.Request");
const QString kSession = QStringLiteral("org.freedesktop.portal.Session");
const QString kProperties = QStringLiteral("org.freedesktop.DBus.Properties");

constexpr uint32_t kMonitor = 1;
constexpr uint32_t kCursorEmbedded = 2;
constexpr uint32_t kPersistUntilRevoked = 2;

// The bus errors that mean "there is no portal to ask".
bool isMissingService(const QDBusError &error)
{
    switch (error.type()) {
    case QDBusError::ServiceUnknown:
    case QDBusError::UnknownInterface:
    case QDBusError::UnknownMethod:
    case QDBusError::UnknownObject:
    case QDBusError::Disconnected:
        return true;
    default:
        return false;
    }
}

// "(ii)" out of a vardict value; false when it is something else.
bool readPair(const QVariant &value, int *a, int *b)
{
    if (!value.canConvert<QDBusArgument>()) return false;
    const QDBusArgument arg = value.value<QDBusArgument>();
    if (arg.currentSignature() != QLatin1String("(ii)")) return false;
    arg.beginStructure();
    arg >> *a >> *b;
    arg.endStructure();
    return true;
}

// The first stream of "a(ua{sv})"; false when there is none or the type is wrong.
bool readFirstStream(const QVariant &value, PortalSession::Stream *stream)
{
    if (!value.canConvert<QDBusArgument>()) return false;
    const QDBusArgument arg = value.value<QDBusArgument>();
    if (arg.currentSignature() != QLatin1String("a(ua{sv})")) return false;
    bool found = false;
    arg.beginArray();
    while (!arg.atEnd()) {
        uint node = 0;
        QVariantMap properties;
        arg.beginStructure();
        arg >> node >> properties;
        arg.endStructure();
        if (found) continue; // one monitor was asked for; more are ignored
        found = true;
        stream->node = node;
        readPair(properties.value(QStringLiteral("position")), &stream->x, &stream->y);
        int w = 0, h = 0;
        if (readPair(properties.value(QStringLiteral("size")), &w, &h) && w > 0 && h > 0) {
            stream->width = w;
            stream->height = h;
        }
    }
    arg.endArray();
    return found;
}

} // namespace

PortalSession::PortalSession(QDBusConnection bus, QString restoreToken, bool wantRemoteDesktop, QObject *parent)
    : QObject(parent), bus_(std::move(bus)), offeredToken_(std::move(restoreToken)), wantRemoteDesktop_(wantRemoteDesktop)
{
}

PortalSession::~PortalSession()
{
    done_ = nullptr;
    closedHandler_ = nullptr;
    close();
    if (fd_ >= 0) ::close(fd_);
}

int PortalSession::takePipeWireFd() { return std::exchange(fd_, -1); }

void PortalSession::start(Done done)
{
    done_ = std::move(done);
    if (!bus_.isConnected()) {
        finish(Outcome::Unavailable, QStringLiteral("there is no session bus"));
        return;
    }
    step_ = Step::Probe;
    // Which portals this desktop has: GetAll on the remote-desktop interface answers with
    // its device types and version, or with an error when it (or the portal) is missing.
    QDBusMessage probe = QDBusMessage::createMethodCall(kService, kPath, kProperties, QStringLiteral("GetAll"));
    probe << kRemoteDesktop;
    auto *watcher = new QDBusPendingCallWatcher(bus_.asyncCall(probe), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this, [this](QDBusPendingCallWatcher *w) {
        w->deleteLater();
        if (step_ != Step::Probe) return;
        const QDBusPendingReply<QVariantMap> reply = *w;
        if (reply.isError() && (reply.error().type() == QDBusError::ServiceUnknown || reply.error().type() == QDBusError::Disconnected)) {
            finish(Outcome::Unavailable, QStringLiteral("the desktop portal is not running (%1)").arg(reply.error().message()));
            return;
        }
        if (!reply.isError()) {
            const QVariantMap props = reply.value();
            const uint32_t types = props.value(QStringLiteral("AvailableDeviceTypes")).toUInt();
            remoteDesktop_ = wantRemoteDesktop_ && (types & kPointer) != 0;
            persistOnDevices_ = props.value(QStringLiteral("version")).toUInt() >= 2;
        }
        createSession();
    });
}

void PortalSession::createSession()
{
    step_ = Step::CreateSession;
    request(remoteDesktop_ ? kRemoteDesktop : kScreenCast, QStringLiteral("CreateSession"), {},
            {{QStringLiteral("session_handle_token"), QStringLiteral("velocast%1").arg(getpid())}});
}

void PortalSession::request(const QString &interface, const QString &method, const QVariantList &leadingArgs, QVariantMap options)
{
    // The request object's path is known before the call, so the answer cannot slip by.
    const QString token = QStringLiteral("velocast%1_%2").arg(getpid()).arg(++tokenCounter_);
    QString sender = bus_.baseService().mid(1);
    sender.replace(QLatin1Char('.'), QLatin1Char('_'));
    if (!requestPath_.isEmpty())
        bus_.disconnect(kService, requestPath_, kRequest, QStringLiteral("Response"), this, SLOT(onResponse(uint, QVariantMap)));
    requestPath_ = QStringLiteral("/org/freedesktop/portal/desktop/request/%1/%2").arg(sender, token);
    bus_.connect(kService, requestPath_, kRequest, QStringLiteral("Response"), this, SLOT(onResponse(uint, QVariantMap)));
    options.insert(QStringLiteral("handle_token"), token);

    QDBusMessage call = QDBusMessage::createMethodCall(kService, kPath, interface, method);
    QVariantList args = leadingArgs;
    args << options;
    call.setArguments(args);
    auto *watcher = new QDBusPendingCallWatcher(bus_.asyncCall(call, 60 * 1000), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this, [this, method, interface](QDBusPendingCallWatcher *w) {
        w->deleteLater();
        const QDBusPendingReply<QDBusObjectPath> reply = *w;
        if (!reply.isError()) return; // the answer comes with Response
        const QString why = QStringLiteral("%1.%2 failed: %3").arg(interface.section(QLatin1Char('.'), -1), method, reply.error().message());
        finish(isMissingService(reply.error()) ? Outcome::Unavailable : Outcome::Failed, why);
    });
}

void PortalSession::onResponse(uint response, const QVariantMap &results)
{
    if (response == 1) {
        finish(Outcome::Cancelled, QStringLiteral("the screen-sharing dialog was cancelled"));
        return;
    }
    if (response != 0) {
        finish(Outcome::Failed, QStringLiteral("the desktop refused to share the screen (answer %1)").arg(response));
        return;
    }
    switch (step_) {
    case Step::CreateSession: {
        sessionHandle_ = results.value(QStringLiteral("session_handle")).toString();
        if (sessionHandle_.isEmpty()) {
            finish(Outcome::Failed, QStringLiteral("the portal returned no session"));
            return;
        }
        bus_.connect(kService, sessionHandle_, kSession, QStringLiteral("Closed"), this, SLOT(onSessionClosed()));
        if (remoteDesktop_) {
            step_ = Step::SelectDevices;
            QVariantMap options{{QStringLiteral("types"), kPointer | kKeyboard}};
            if (persistOnDevices_) {
                options.insert(QStringLiteral("persist_mode"), kPersistUntilRevoked);
                if (!offeredToken_.isEmpty()) options.insert(QStringLiteral("restore_token"), offeredToken_);
            }
            request(kRemoteDesktop, QStringLiteral("SelectDevices"), {QVariant::fromValue(QDBusObjectPath(sessionHandle_))}, options);
        } else {
            selectSources();
        }
        return;
    }
    case Step::SelectDevices:
        selectSources();
        return;
    case Step::SelectSources:
        step_ = Step::Start;
        request(remoteDesktop_ ? kRemoteDesktop : kScreenCast, QStringLiteral("Start"),
                {QVariant::fromValue(QDBusObjectPath(sessionHandle_)), QString()}, {});
        return;
    case Step::Start:
        if (!readFirstStream(results.value(QStringLiteral("streams")), &stream_)) {
            finish(Outcome::Failed, QStringLiteral("the portal started no screen stream"));
            return;
        }
        devices_ = remoteDesktop_ ? results.value(QStringLiteral("devices")).toUInt() : 0;
        newToken_ = results.value(QStringLiteral("restore_token")).toString();
        openRemote();
        return;
    default:
        return; // a late answer after close()
    }
}

void PortalSession::selectSources()
{
    step_ = Step::SelectSources;
    QVariantMap options{{QStringLiteral("types"), kMonitor}, {QStringLiteral("multiple"), false}};
    // Embedded where offered; a mode the portal does not list would close the session.
    const QDBusMessage get = bus_.call(
        QDBusMessage::createMethodCall(kService, kPath, kProperties, QStringLiteral("Get")) << kScreenCast << QStringLiteral("AvailableCursorModes"),
        QDBus::Block, 2000);
    const uint32_t cursorModes = get.type() == QDBusMessage::ReplyMessage && !get.arguments().isEmpty()
                                     ? get.arguments().first().value<QDBusVariant>().variant().toUInt()
                                     : 0;
    if (cursorModes & kCursorEmbedded) options.insert(QStringLiteral("cursor_mode"), kCursorEmbedded);
    // A remote-desktop session keeps its choice through SelectDevices (where it can).
    if (!remoteDesktop_) {
        options.insert(QStringLiteral("persist_mode"), kPersistUntilRevoked);
        if (!offeredToken_.isEmpty()) options.insert(QStringLiteral("restore_token"), offeredToken_);
    }
    request(kScreenCast, QStringLiteral("SelectSources"), {QVariant::fromValue(QDBusObjectPath(sessionHandle_))}, options);
}

void PortalSession::openRemote()
{
    step_ = Step::OpenRemote;
    QDBusMessage call = QDBusMessage::createMethodCall(kService, kPath, kScreenCast, QStringLiteral("OpenPipeWireRemote"));
    call << QVariant::fromValue(QDBusObjectPath(sessionHandle_)) << QVariantMap();
    auto *watcher = new QDBusPendingCallWatcher(bus_.asyncCall(call), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this, [this](QDBusPendingCallWatcher *w) {
        w->deleteLater();
        if (step_ != Step::OpenRemote) return;
        const QDBusPendingReply<QDBusUnixFileDescriptor> reply = *w;
        if (reply.isError() || !reply.value().isValid()) {
            finish(Outcome::Failed, QStringLiteral("the PipeWire remote did not open: %1").arg(reply.error().message()));
            return;
        }
        fd_ = fcntl(reply.value().fileDescriptor(), F_DUPFD_CLOEXEC, 3);
        if (fd_ < 0) {
            finish(Outcome::Failed, QStringLiteral("the PipeWire remote did not open: out of file descriptors"));
            return;
        }
        step_ = Step::Running;
        finish(Outcome::Started, QString());
    });
}

void PortalSession::finish(Outcome outcome, const QString &why)
{
    if (outcome != Outcome::Started) close();
    if (Done done = std::exchange(done_, nullptr)) done(outcome, why);
}

void PortalSession::close()
{
    if (step_ == Step::Closed) return;
    step_ = Step::Closed;
    if (!requestPath_.isEmpty())
        bus_.disconnect(kService, requestPath_, kRequest, QStringLiteral("Response"), this, SLOT(onResponse(uint, QVariantMap)));
    if (!sessionHandle_.isEmpty()) {
        // Events still waiting (the release of a held button) go before the session ends.
        for (const QDBusMessage &call : pendingNotifies_) bus_.asyncCall(call);
        pendingNotifies_.clear();
        bus_.disconnect(kService, sessionHandle_, kSession, QStringLiteral("Closed"), this, SLOT(onSessionClosed()));
        bus_.asyncCall(QDBusMessage::createMethodCall(kService, sessionHandle_, kSession, QStringLiteral("Close")));
    }
}

void PortalSession::onSessionClosed()
{
    const bool wasRunning = step_ == Step::Running;
    sessionHandle_.clear(); // nothing left to close
    close();
    if (!wasRunning) {
        finish(Outcome::Failed, QStringLiteral("the desktop closed the screen-sharing session"));
        return;
    }
    if (auto handler = std::exchange(closedHandler_, nullptr)) handler();
}

void PortalSession::notify(const QString &method, const QVariantList &args)
{
    if (step_ != Step::Running || !remoteDesktop_) return;
    QDBusMessage call = QDBusMessage::createMethodCall(kService, kPath, kRemoteDesktop, method);
    QVariantList all{QVariant::fromValue(QDBusObjectPath(sessionHandle_)), QVariantMap()};
    all += args;
    call.setArguments(all);
    // The portal frontend may handle calls that arrive together on different threads, which
    // swaps a press with the motion before it or the keys of a word: each call goes out when
    // the one before it has been answered. A backlog that a flood of events would grow
    // without end is cut.
    if (pendingNotifies_.size() >= kMaxPendingNotifies) {
        if (!toldBacklog_)
            logLine(lcCapture(), QStringLiteral("portal: %1 input events wait for the desktop; %2 dropped").arg(pendingNotifies_.size()).arg(method));
        toldBacklog_ = true;
        return;
    }
    pendingNotifies_.push_back(call);
    if (!notifyInFlight_) sendNextNotify();
}

void PortalSession::sendNextNotify()
{
    if (pendingNotifies_.empty()) {
        notifyInFlight_ = false;
        toldBacklog_ = false;
        return;
    }
    notifyInFlight_ = true;
    const QDBusMessage call = pendingNotifies_.front();
    pendingNotifies_.pop_front();
    auto *watcher = new QDBusPendingCallWatcher(bus_.asyncCall(call), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this, [this, watcher] {
        watcher->deleteLater();
        if (watcher->isError() && !toldNotifyError_) {
            logLine(lcCapture(), QStringLiteral("portal: the desktop refused an input event: %1").arg(watcher->error().message()));
            toldNotifyError_ = true;
        }
        if (step_ == Step::Running) sendNextNotify();
    });
}

void PortalSession::pointerMotionAbsolute(double x, double y)
{
    if (hasPointer()) notify(QStringLiteral("NotifyPointerMotionAbsolute"), {stream_.node, x, y});
}

void PortalSession::pointerButton(int32_t button, bool pressed)
{
    if (hasPointer()) notify(QStringLiteral("NotifyPointerButton"), {button, uint(pressed ? 1 : 0)});
}

void PortalSession::pointerAxisDiscrete(uint32_t axis, int32_t steps)
{
    if (hasPointer()) notify(QStringLiteral("NotifyPointerAxisDiscrete"), {axis, steps});
}

void PortalSession::keyboardKeysym(int32_t keysym, bool pressed)
{
    if (devices_ & kKeyboard) notify(QStringLiteral("NotifyKeyboardKeysym"), {keysym, uint(pressed ? 1 : 0)});
}

} // namespace velocast::capture
