#pragma once

#include "common/notification_center.h"

#include <QString>
#include <QVariant>

#include <functional>
#include <memory>

class QObject;

namespace velocast {

class NetControl;

// What the connection session needs from the main window. Every call comes on the main thread.
class ConnectionSessionView {
public:
    virtual ~ConnectionSessionView() = default;
    // Empties the six code boxes and opens the first one (the form's reSetTextFields).
    virtual void reSetTextFields() = 0;
    // true: the network line hides and the loading view shows; false: the reverse.
    virtual void setLoadingVisible(bool loading) = 0;
    // Shows the tip line with text, or hides it (text ignored).
    virtual void setTipVisible(bool visible, const QString &text) = 0;
    // Lays a new casting panel for the named receiver over the window's content.
    virtual void showCastingPanel(const QString &pcName) = 0;
    // Renames the panel on screen, if one is shown.
    virtual void setCastingPanelName(const QString &pcName) = 0;
    // Takes the panel off the window, if one is shown, and un-minimises the window.
    virtual void removeCastingPanel() = 0;
};

// The logic of the main window between six typed digits and the casting panel, and back:
// decode the code, open the control channel, ask for admission, react to the receiver's
// answers and to the session messages that follow, run the heartbeat, and show failures as
// tips. Also relays rename, cancel-permission and disconnect requests to the receiver.
//
// Lives on the main thread. Decoding and the connect run on a background thread; the
// channel's outcome may come on the socket queue. Everything that touches the view is moved
// to the main thread first.
class ConnectionSession {
public:
    static constexpr int kTipMs = 3000;

    ConnectionSession(ConnectionSessionView &view, NetControl &control);
    ~ConnectionSession();
    ConnectionSession(const ConnectionSession &) = delete;
    ConnectionSession &operator=(const ConnectionSession &) = delete;

    // The sender's own address, from the network monitor ("" without a network).
    QString ipStr() const;
    void setIpStr(const QString &ip);
    QString pcName() const;

    // Where the receiver's address goes once the channel is up (the casting session and
    // the DNS-SD road take it from here).
    void setReceiverAddressHandler(std::function<void(const QString &ip)> handler);

    void textCode(const QString &code);
    void connectWithCode(const QString &code);
    void connectIpStr(const QString &ip, const QString &code);
    void sendConnectMsgWithIP(const QString &ip, const QString &code);
    void connectSucessWithPCName(const QString &name);
    void connectFaildWithType(qint64 type);
    void messageWithNotice(const QVariant &object);
    void disconnectWithNotice();
    void brokenWithNotice();
    void disConnect();
    void sendRenameMsg(const QVariant &object);
    void sendCancelRequest();
    void cancelConnect();
    void cancelConnectButtonAction();
    void miracastAction();
    void miracastStop();
    void showLoading(bool loading);
    void showTipInfo(const QString &text);

    // The tip for a connect failure type.
    static QString failureText(qint64 type);
    // The text for an "id_permission_refuse" type.
    static QString refusalText(qint64 type);

private:
    void configNotice();
    void onMain(std::function<void()> task);

    ConnectionSessionView &view_;
    NetControl &control_;
    std::unique_ptr<QObject> context_; // main-thread owner of the tip timers
    mutable std::mutex mutex_;
    QString ipStr_;
    QString pcName_;
    std::function<void(const QString &)> receiverAddressHandler_;
    bool panelShown_ = false;
    std::shared_ptr<ConnectionSession *> life_;
    std::vector<Observation> observers_;
};

} // namespace velocast
