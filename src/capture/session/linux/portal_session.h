// PortalSession: one screen-cast session through the desktop portal, on the session bus.
//
// With the RemoteDesktop portal (GNOME, KDE) it is a remote-desktop session that also
// selects the screen-cast sources, so the person answers one dialog for both and the
// receiver's pointer can be injected; without it (wlroots desktops) a plain screen-cast
// session. Either way it ends with the PipeWire stream the person chose and a file
// descriptor on the PipeWire remote that may read it.
//
// Every portal call is asynchronous (a request object answers with a Response signal), so
// start() returns at once and reports on the thread this object lives on, which must run
// an event loop: a dialog that stays up for minutes never blocks that thread.
#pragma once

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QObject>
#include <QString>
#include <QVariantMap>

#include <cstdint>
#include <deque>
#include <functional>

namespace velocast::capture {

class PortalSession : public QObject {
    Q_OBJECT
public:
    // How a start ended.
    enum class Outcome {
        Started,
        Cancelled,   // the person cancelled the dialog
        Unavailable, // no portal, or it has no screen cast
        Failed,      // anything else (the reason says what)
    };
    struct Stream {
        uint32_t node = 0;
        int x = 0;
        int y = 0;
        int width = 0; // 0 when the portal does not say
        int height = 0;
    };
    using Done = std::function<void(Outcome outcome, const QString &why)>;

    // restoreToken: from an earlier session, or empty to ask the person. wantRemoteDesktop:
    // use the remote-desktop portal where the desktop has one. Its version 1 (portal
    // frontends before 1.17) cannot keep the person's choice, so such a session asks again
    // at every cast; a plain screen-cast session remembers.
    PortalSession(QDBusConnection bus, QString restoreToken, bool wantRemoteDesktop = true, QObject *parent = nullptr);
    ~PortalSession() override;

    // Runs the whole exchange; done is called once, later, on this object's thread.
    void start(Done done);
    // Ends the session (the portal closes the stream). Safe to call more than once.
    void close();
    // Called once when the session ends without close(): the person stopped sharing.
    void setClosedHandler(std::function<void()> handler) { closedHandler_ = std::move(handler); }

    bool isRemoteDesktop() const { return remoteDesktop_; }
    // Whether the person allowed pointer input (remote-desktop sessions only).
    bool hasPointer() const { return (devices_ & kPointer) != 0; }
    const Stream &stream() const { return stream_; }
    // The session's object path on the portal (empty before it is created).
    QString sessionHandle() const { return sessionHandle_; }
    // The PipeWire remote's descriptor; the caller takes it over (-1 when none or taken).
    int takePipeWireFd();
    // The token for the next session, or empty when this desktop does not keep one.
    QString restoreToken() const { return newToken_; }

    // Pointer and keyboard (remote-desktop sessions the person allowed; otherwise nothing).
    // Positions are in the stream's own pixels; buttons are Linux input codes (0x110 left).
    void pointerMotionAbsolute(double x, double y);
    void pointerButton(int32_t button, bool pressed);
    void pointerAxisDiscrete(uint32_t axis, int32_t steps);
    void keyboardKeysym(int32_t keysym, bool pressed);

    static constexpr uint32_t kPointer = 2;
    static constexpr uint32_t kKeyboard = 1;

private slots:
    void onResponse(uint response, const QVariantMap &results);
    void onSessionClosed();

private:
    enum class Step { Idle, Probe, CreateSession, SelectDevices, SelectSources, Start, OpenRemote, Running, Closed };
    void request(const QString &interface, const QString &method, const QVariantList &leadingArgs, QVariantMap options);
    void finish(Outcome outcome, const QString &why);
    void selectSources();
    void openRemote();
    void notify(const QString &method, const QVariantList &args);
    void createSession();
    void sendNextNotify();

    QDBusConnection bus_;
    const QString offeredToken_;
    const bool wantRemoteDesktop_;
    Done done_;
    std::function<void()> closedHandler_;
    Step step_ = Step::Idle;
    bool remoteDesktop_ = false;
    bool persistOnDevices_ = false; // the remote-desktop portal keeps the choice (version 2 on)
    uint32_t devices_ = 0;
    QString sessionHandle_;
    QString requestPath_;
    int tokenCounter_ = 0;
    Stream stream_;
    int fd_ = -1;
    QString newToken_;
    // Input calls in order, one on the bus at a time.
    static constexpr size_t kMaxPendingNotifies = 4096;
    std::deque<QDBusMessage> pendingNotifies_;
    bool notifyInFlight_ = false;
    bool toldBacklog_ = false;
    bool toldNotifyError_ = false;
};

} // namespace velocast::capture
