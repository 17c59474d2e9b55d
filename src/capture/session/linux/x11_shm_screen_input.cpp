#include "capture/session/linux/x11_shm_screen_input.h"

#include "capture/picture_pacer.h"
#include "common/log.h"

#include <X11/Xlib.h>
#include <X11/Xutil.h>
#include <X11/extensions/XShm.h>
#include <X11/extensions/Xdamage.h>
#include <X11/extensions/Xfixes.h>

#include <sys/ipc.h>
#include <sys/shm.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <vector>

namespace velocast::capture {

namespace {

constexpr int kFramesPerSecond = 30;

// Xlib reports protocol errors to one process-wide handler, whose default ends the process.
// Ours counts and logs them; the capture thread reads the count around its requests.
std::atomic<uint64_t> gXErrors{0};
int onXError(Display *dpy, XErrorEvent *event)
{
    // A screen that shrank under a running capture fails every tick: the first few are enough.
    constexpr uint64_t kLoggedErrors = 5;
    const uint64_t n = gXErrors.fetch_add(1);
    if (n >= kLoggedErrors) return 0;
    char text[128] = {};
    XGetErrorText(dpy, event->error_code, text, sizeof text - 1);
    logLine(lcCapture(), QStringLiteral("X11 capture: X error %1 (request %2.%3)")
                             .arg(QString::fromLocal8Bit(text)).arg(event->request_code).arg(event->minor_code));
    return 0;
}

struct DisplayCloser {
    void operator()(Display *d) const { XCloseDisplay(d); }
};

class X11ShmScreenInput final : public CaptureSource {
public:
    X11ShmScreenInput(const MainDisplay &display, SampleHandler handler)
        : area_(display), handler_(std::move(handler)),
          pacer_("delegate queue", kFramesPerSecond, [this](const MediaSample &s) { deliver(s); }, [this] { refresh(); })
    {
    }

    ~X11ShmScreenInput() override
    {
        stopRunning();
        if (!dpy_) return;
        if (damage_) XDamageDestroy(dpy_.get(), damage_);
        if (image_) {
            if (shmAttached_) XShmDetach(dpy_.get(), &shm_);
            XDestroyImage(image_); // frees the XImage only: its data is the shared segment
        }
        if (shm_.shmaddr && shm_.shmaddr != reinterpret_cast<char *>(-1)) shmdt(shm_.shmaddr);
        XSync(dpy_.get(), False);
    }

    bool open(QString *error)
    {
        static const bool installed = (XSetErrorHandler(&onXError), true);
        (void)installed;
        const QByteArray name = area_.displayName.toLocal8Bit();
        dpy_.reset(XOpenDisplay(name.isEmpty() ? nullptr : name.constData()));
        if (!dpy_) {
            *error = QStringLiteral("cannot open X display \"%1\"").arg(area_.displayName);
            return false;
        }
        Display *d = dpy_.get();
        root_ = DefaultRootWindow(d);
        int errorBase = 0;
        if (!XDamageQueryExtension(d, &damageEvent_, &errorBase)) {
            *error = QStringLiteral("the X server has no DAMAGE extension");
            return false;
        }
        if (!XFixesQueryExtension(d, &fixesEvent_, &errorBase)) {
            *error = QStringLiteral("the X server has no XFixes extension");
            return false;
        }
        XWindowAttributes attributes{};
        XGetWindowAttributes(d, root_, &attributes);
        if (area_.width < 2 || area_.height < 2 || area_.x < 0 || area_.y < 0 || area_.x + area_.width > attributes.width
            || area_.y + area_.height > attributes.height) {
            *error = QStringLiteral("the display area %1x%2+%3+%4 is not inside the screen")
                         .arg(area_.width).arg(area_.height).arg(area_.x).arg(area_.y);
            return false;
        }
        Visual *visual = attributes.visual;
        if (attributes.depth < 24 || visual->red_mask != 0xFF0000 || visual->green_mask != 0xFF00 || visual->blue_mask != 0xFF) {
            *error = QStringLiteral("the X screen is not 24-bit xRGB (depth %1)").arg(attributes.depth);
            return false;
        }
        if (XShmQueryExtension(d)) attachShm(visual, attributes.depth);
        if (!image_) logLine(lcCapture(), QStringLiteral("X11 capture: no shared memory with the X server; every change is copied over the socket"));
        damage_ = XDamageCreate(d, root_, XDamageReportBoundingBox);
        XFixesSelectCursorInput(d, root_, XFixesDisplayCursorNotifyMask);
        XSync(d, False);
        return true;
    }

    bool startRunning(QString *) override
    {
        pacer_.start();
        return true;
    }
    void stopRunning() override
    {
        if (!pacer_.running()) return;
        pacer_.stop();
        const PicturePacer::Stats s = pacer_.stats();
        logLine(lcCapture(), QStringLiteral("X11 capture: %1 pictures out, %2 captured, %3 repeats, %4 ticks missed, %5 refused")
                                 .arg(s.ticks).arg(s.converted).arg(s.repeated).arg(s.late).arg(s.refused));
    }
    uint64_t deliveredSamples() const override { return delivered_.load(); }

private:
    void attachShm(Visual *visual, int depth)
    {
        Display *d = dpy_.get();
        XImage *image = XShmCreateImage(d, visual, unsigned(depth), ZPixmap, nullptr, &shm_, unsigned(area_.width), unsigned(area_.height));
        if (!image) return;
        if (image->bits_per_pixel != 32) {
            XDestroyImage(image);
            return;
        }
        shm_.shmid = shmget(IPC_PRIVATE, size_t(image->bytes_per_line) * size_t(image->height), IPC_CREAT | 0600);
        if (shm_.shmid < 0) {
            XDestroyImage(image);
            return;
        }
        shm_.shmaddr = image->data = static_cast<char *>(shmat(shm_.shmid, nullptr, 0));
        shm_.readOnly = False;
        const uint64_t errorsBefore = gXErrors.load();
        const bool attached = shm_.shmaddr != reinterpret_cast<char *>(-1) && XShmAttach(d, &shm_);
        XSync(d, False);
        // Marked for removal now: it goes when both sides have detached, also after a crash.
        shmctl(shm_.shmid, IPC_RMID, nullptr);
        if (!attached || gXErrors.load() != errorsBefore) {
            image->data = nullptr;
            XDestroyImage(image);
            if (shm_.shmaddr != reinterpret_cast<char *>(-1)) shmdt(shm_.shmaddr);
            shm_.shmaddr = nullptr;
            return;
        }
        shmAttached_ = true;
        image_ = image;
    }

    // On the pacer's thread, at every tick: reads what changed since the last tick and, if
    // anything did, captures and converts a new picture.
    void refresh()
    {
        Display *d = dpy_.get();
        bool changed = first_;
        bool damaged = false;
        while (XPending(d) > 0) {
            XEvent event;
            XNextEvent(d, &event);
            if (event.type == damageEvent_ + XDamageNotify) {
                const auto *notify = reinterpret_cast<const XDamageNotifyEvent *>(&event);
                damaged = true;
                if (intersects(notify->area)) changed = true;
            } else if (event.type == fixesEvent_ + XFixesCursorNotify) {
                cursorChanged_ = true;
            }
        }
        // Cleared before the capture, so a change during it is reported for the next tick.
        if (damaged) XDamageSubtract(d, damage_, None, None);
        Window rootReturn, child;
        int px = 0, py = 0, wx, wy;
        unsigned mask;
        if (XQueryPointer(d, root_, &rootReturn, &child, &px, &py, &wx, &wy, &mask) && (px != pointerX_ || py != pointerY_)) {
            // Only a pointer that is (or was) over the display shows.
            if (pointerOver(px, py) || pointerOver(pointerX_, pointerY_)) changed = true;
            pointerX_ = px;
            pointerY_ = py;
        }
        if (cursorChanged_ && pointerOver(px, py)) changed = true;
        if (!changed) return;
        first_ = false;
        capture();
    }

    bool intersects(const XRectangle &r) const
    {
        return r.x < area_.x + area_.width && r.x + int(r.width) > area_.x && r.y < area_.y + area_.height && r.y + int(r.height) > area_.y;
    }
    bool pointerOver(int x, int y) const
    {
        // A pointer image reaches at most its size beyond the hot spot; 64 covers the usual.
        return x > area_.x - 64 && x < area_.x + area_.width + 64 && y > area_.y - 64 && y < area_.y + area_.height + 64;
    }

    void capture()
    {
        Display *d = dpy_.get();
        const uint64_t errorsBefore = gXErrors.load();
        XImage *plain = nullptr;
        XImage *image = image_;
        if (image_) {
            if (!XShmGetImage(d, root_, image_, area_.x, area_.y, AllPlanes)) image = nullptr;
        } else {
            plain = XGetImage(d, root_, area_.x, area_.y, unsigned(area_.width), unsigned(area_.height), AllPlanes, ZPixmap);
            image = plain;
        }
        if (!image || gXErrors.load() != errorsBefore || image->bits_per_pixel != 32 || image->width != area_.width
            || image->height != area_.height) {
            // The screen shrank under us, say; the previous picture stays.
            if (!captureFailed_) logLine(lcCapture(), QStringLiteral("X11 capture: the screen could not be read; the last picture repeats"));
            captureFailed_ = true;
            if (plain) XDestroyImage(plain);
            first_ = true; // try again at the next tick
            return;
        }
        captureFailed_ = false;
        auto *pixels = reinterpret_cast<uint8_t *>(image->data);
        drawPointer(pixels, image->bytes_per_line);
        pacer_.submitBgrx(pixels, image->bytes_per_line, area_.width, area_.height);
        if (plain) XDestroyImage(plain);
    }

    // Blends the pointer (premultiplied ARGB) into the picture, clipped to it.
    void drawPointer(uint8_t *pixels, int stride)
    {
        Display *d = dpy_.get();
        if (cursorChanged_ || cursor_.empty()) {
            cursorChanged_ = false;
            XFixesCursorImage *c = XFixesGetCursorImage(d);
            if (!c) return;
            cursorW_ = c->width;
            cursorH_ = c->height;
            hotX_ = c->xhot;
            hotY_ = c->yhot;
            cursor_.assign(size_t(cursorW_) * cursorH_, 0);
            // Each pixel arrives in an unsigned long; the low 32 bits are ARGB.
            for (size_t i = 0; i < cursor_.size(); ++i) cursor_[i] = uint32_t(c->pixels[i]);
            XFree(c);
        }
        const int left = pointerX_ - hotX_ - area_.x, top = pointerY_ - hotY_ - area_.y;
        const int x0 = std::max(0, -left), y0 = std::max(0, -top);
        const int x1 = std::min(cursorW_, area_.width - left), y1 = std::min(cursorH_, area_.height - top);
        for (int y = y0; y < y1; ++y) {
            uint8_t *row = pixels + size_t(top + y) * size_t(stride) + size_t(left) * 4;
            const uint32_t *src = cursor_.data() + size_t(y) * cursorW_;
            for (int x = x0; x < x1; ++x) {
                const uint32_t p = src[x];
                const uint32_t a = p >> 24;
                if (a == 0) continue;
                uint8_t *q = row + 4 * x;
                for (int c = 0; c < 3; ++c) {
                    const uint32_t s = (p >> (8 * c)) & 0xFF;
                    q[c] = uint8_t(std::min<uint32_t>(255, s + (q[c] * (255 - a) + 127) / 255));
                }
            }
        }
    }

    void deliver(const MediaSample &picture)
    {
        delivered_.fetch_add(1);
        handler_(picture);
    }

    const MainDisplay area_;
    const SampleHandler handler_;
    std::unique_ptr<Display, DisplayCloser> dpy_;
    Window root_ = 0;
    int damageEvent_ = 0;
    int fixesEvent_ = 0;
    Damage damage_ = 0;
    XShmSegmentInfo shm_{};
    bool shmAttached_ = false;
    XImage *image_ = nullptr;
    // Capture thread only.
    bool first_ = true;
    bool captureFailed_ = false;
    bool cursorChanged_ = true;
    int pointerX_ = -100000, pointerY_ = -100000;
    std::vector<uint32_t> cursor_;
    int cursorW_ = 0, cursorH_ = 0, hotX_ = 0, hotY_ = 0;
    std::atomic<uint64_t> delivered_{0};
    // Last: its thread (which uses everything above) is joined first.
    PicturePacer pacer_;
};

} // namespace

std::unique_ptr<CaptureSource> makeX11ShmScreenInput(const MainDisplay &display, CaptureSource::SampleHandler handler, QString *error)
{
    auto input = std::make_unique<X11ShmScreenInput>(display, std::move(handler));
    if (!input->open(error)) return nullptr;
    return input;
}

} // namespace velocast::capture
