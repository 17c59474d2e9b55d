// The six-digit connect code a receiver shows.
//
//   N = safe code * 65536 + third octet * 256 + fourth octet, printed as six decimal digits
//
//   bit  19 .. 16 | 15 ............ 8 | 7 ............. 0
//       safe code |  third octet (c)  |  fourth octet (d)    of the receiver's a.b.c.d
//
// The sender takes a.b from its own address, so both must share the same /16 network.
#pragma once

#include <QHostAddress>
#include <QString>

#include <optional>

namespace velocast::receiver {

// The code for an IPv4 address and a safe code (0..15). Empty when the address is not
// IPv4, the safe code is out of range, or N would exceed 999999 (six digits).
std::optional<QString> connectCode(const QHostAddress &address, int safeCode);

// The largest safe code whose code still fits six digits for this address (-1: none).
int largestSafeCode(const QHostAddress &address);

// The address a person would read the code for: the first non-loopback IPv4 address of an
// interface that is up, or 127.0.0.1 when there is none.
QHostAddress primaryIpv4Address();

} // namespace velocast::receiver
