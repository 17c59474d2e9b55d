#pragma once

namespace velocast::capture {

class PortalSession;

// What the portal capture backend offers beyond capture: its running sharing session, for
// injecting the receiver's pointer (null while no screen is shared).
class PortalBackend {
public:
    virtual ~PortalBackend() = default;
    virtual PortalSession *portalSession() = 0;
};

} // namespace velocast::capture
