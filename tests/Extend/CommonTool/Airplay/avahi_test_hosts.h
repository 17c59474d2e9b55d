#pragma once

#include <QByteArray>
#include <QProcess>
#include <QString>
#include <QStringList>

namespace velocast::test {

// Private mDNS hosts (avahi_hosts.sh): network namespaces with their own system bus and
// avahi-daemon, joined by veth when there are two. This process talks to host 1.
class AvahiHosts {
public:
    explicit AvahiHosts(int count = 1);
    ~AvahiHosts();
    bool ok() const { return ok_; }
    QString bus(int host = 1) const;
    // Ends host 1's daemon.
    void killDaemon();

private:
    QString dir_;
    bool ok_ = false;
};

// avahi-browse -t -p (with -r: resolved) for one service type, as another process sees it;
// the lines for that type ("+;lo;IPv4;name;..." or "=;lo;IPv4;name;type;domain;host;address;port;txt").
// A service whose host has no address record never resolves.
QStringList browse(const QString &bus, const QString &type, bool resolve);
// Whether an instance of that name shows in a browse.
bool browseHas(const QString &bus, const QString &type, const QString &name);
// Waits (20 s at most) until the instance shows, or with present false, until it is gone.
bool waitBrowsed(const QString &bus, const QString &type, const QString &name, bool present = true);
// Another process publishing a service on the daemon behind bus (avahi-publish), until
// the QProcess ends; true once a browse shows it.
bool startPublisher(QProcess &publisher, const QString &bus, const QString &name, const QString &type, int port);

} // namespace velocast::test
