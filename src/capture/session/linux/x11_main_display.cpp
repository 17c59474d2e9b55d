#include "capture/session/linux/x11_main_display.h"

#include <X11/Xlib.h>
#include <X11/extensions/Xrandr.h>

#include <cstdlib>
#include <memory>

namespace velocast::capture {

namespace {

struct DisplayCloser {
    void operator()(Display *d) const { XCloseDisplay(d); }
};
struct ResourcesFree {
    void operator()(XRRScreenResources *r) const { XRRFreeScreenResources(r); }
};
struct OutputInfoFree {
    void operator()(XRROutputInfo *o) const { XRRFreeOutputInfo(o); }
};
struct CrtcInfoFree {
    void operator()(XRRCrtcInfo *c) const { XRRFreeCrtcInfo(c); }
};
using CrtcInfoPtr = std::unique_ptr<XRRCrtcInfo, CrtcInfoFree>;

// The area an output shows, when it is connected and lit.
CrtcInfoPtr litArea(Display *dpy, XRRScreenResources *resources, RROutput output)
{
    std::unique_ptr<XRROutputInfo, OutputInfoFree> info(XRRGetOutputInfo(dpy, resources, output));
    if (!info || info->connection != RR_Connected || info->crtc == None) return nullptr;
    CrtcInfoPtr crtc(XRRGetCrtcInfo(dpy, resources, info->crtc));
    if (!crtc || crtc->width == 0 || crtc->height == 0) return nullptr;
    return crtc;
}

} // namespace

std::optional<MainDisplay> queryMainDisplay(const QString &displayName, QString *why)
{
    const QByteArray name = displayName.toLocal8Bit();
    if (name.isEmpty() && !std::getenv("DISPLAY")) {
        *why = QStringLiteral("no X display (DISPLAY is not set); screen capture needs an X11 session");
        return std::nullopt;
    }
    std::unique_ptr<Display, DisplayCloser> dpy(XOpenDisplay(name.isEmpty() ? nullptr : name.constData()));
    if (!dpy) {
        *why = QStringLiteral("cannot open X display \"%1\"; screen capture needs an X11 session")
                   .arg(name.isEmpty() ? QString::fromLocal8Bit(std::getenv("DISPLAY")) : displayName);
        return std::nullopt;
    }
    int eventBase = 0, errorBase = 0;
    if (!XRRQueryExtension(dpy.get(), &eventBase, &errorBase)) {
        *why = QStringLiteral("the X server has no RandR extension; the main display cannot be found");
        return std::nullopt;
    }

    MainDisplay display;
    display.displayName = QString::fromLocal8Bit(XDisplayString(dpy.get()));
    const Window root = DefaultRootWindow(dpy.get());
    display.width = DisplayWidth(dpy.get(), DefaultScreen(dpy.get()));
    display.height = DisplayHeight(dpy.get(), DefaultScreen(dpy.get()));

    std::unique_ptr<XRRScreenResources, ResourcesFree> resources(XRRGetScreenResourcesCurrent(dpy.get(), root));
    if (!resources) return display;
    RROutput chosen = None;
    CrtcInfoPtr area;
    if (const RROutput primary = XRRGetOutputPrimary(dpy.get(), root); primary != None) {
        area = litArea(dpy.get(), resources.get(), primary);
        if (area) chosen = primary;
    }
    for (int i = 0; !area && i < resources->noutput; ++i) {
        area = litArea(dpy.get(), resources.get(), resources->outputs[i]);
        if (area) chosen = resources->outputs[i];
    }
    if (!area) return display;
    display.displayID = uint32_t(chosen);
    display.x = area->x;
    display.y = area->y;
    display.width = int(area->width);
    display.height = int(area->height);
    return display;
}

} // namespace velocast::capture
